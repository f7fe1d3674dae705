// Which nodes of a model are served by what is behind it.
#include "veld/model/scheme.h"

namespace veld
{

namespace
{

void visit(scheme *what, const std::string &path, device_backend *behind);

// What stands in a row comes with it: fields are named as they stand below the instance.
void make_fields(scheme *of, const std::string &prefix)
{
    for (const auto &child : of->children) {
        if (child->kind == node_kind::object)
            make_fields(child.get(), prefix + child->name + ".");
        if (child->kind != node_kind::parameter || child->from != source::stored)
            continue;
        child->from = source::row_field;
        child->provider = prefix + child->name;
    }
}

void bind_parameter(scheme *what, const std::string &path, device_backend *behind)
{
    const backend_part reads = behind->serves(backend_use::read, *what, path);
    if (reads == backend_part::always) {
        what->from = source::live;
        what->asked = true;
    }
    what->acts = what->writable && behind->serves(backend_use::set, *what, path) != backend_part::none;
}

void bind_table(scheme *what, const std::string &path, device_backend *behind)
{
    if (behind->serves(backend_use::list, *what, path) == backend_part::always) {
        what->from = source::live;
        make_fields(what->element.get(), "");
    }
    visit(what->element.get(), path + "{i}", behind);
}

void visit(scheme *what, const std::string &path, device_backend *behind)
{
    if (what->kind == node_kind::parameter)
        bind_parameter(what, path, behind);
    if (what->kind == node_kind::method) {
        what->runs = behind->serves(backend_use::run, *what, path) != backend_part::none;
        return; // arguments are nobody's
    }
    const std::string below = path.empty() ? "" : path + ".";
    if (what->element)
        bind_table(what, below, behind);
    for (const auto &child : what->children)
        visit(child.get(), below + child->name, behind);
}

} // namespace

void scheme_bind(scheme *model, device_backend *behind)
{
    visit(model, "", behind);
}

} // namespace veld

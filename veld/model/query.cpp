#include "veld/model/query.h"

#include "base/json_write.h"
#include "veld/model/secret.h"

#include <limits>

namespace veld
{

namespace
{

constexpr int64_t endless = std::numeric_limits<int64_t>::max();

fault too_large()
{
    return {code::resources, "the answer would be larger than a message may be", ""};
}

// Walks a place and what is below it in the order of answers. `Visit` gets (node or null, scheme, name, depth left) and
// returns false to stop. Nodes that the asking role may not read are visited, what is below them is not.
template <class Visit> class walker
{
public:
    walker(tree *over, role who, Visit visit) : tree_(over), who_(who), visit_(visit) {}

    /// `name_` must be the place's name. The place itself is visited when `self` is set; returns false when stopped.
    bool place_and_below(const place &start, std::string name, int64_t depth, bool self)
    {
        name_ = std::move(name);
        if (start.at->what != start.what)
            return arguments(*start.what, depth, self);
        return node_and_below(start.at, depth, self);
    }

private:
    bool node_and_below(node *at, int64_t depth, bool self)
    {
        const scheme &what = *at->what;
        if (self && !visit_(at, what, name_, depth))
            return false;
        if (depth == 0 || who_ < what.reach)
            return true;
        if (what.kind == node_kind::method)
            return below(what, depth);
        if (at->table) {
            for (node *one : tree_->listed(at)) {
                const size_t kept = name_.size();
                json_write_integer(&name_, one->number);
                if (one->what->is_object())
                    name_ += '.';
                const bool more = node_and_below(one, depth - 1, true);
                name_.resize(kept);
                if (!more)
                    return false;
            }
        }
        for (const auto &child : at->children) {
            const size_t kept = name_.size();
            name_ += child->what->name;
            if (child->what->is_object())
                name_ += '.';
            const bool more = node_and_below(child.get(), depth - 1, true);
            name_.resize(kept);
            if (!more)
                return false;
        }
        return true;
    }

    bool arguments(const scheme &what, int64_t depth, bool self)
    {
        if (self && !visit_(nullptr, what, name_, depth))
            return false;
        return depth == 0 || below(what, depth);
    }

    bool below(const scheme &what, int64_t depth)
    {
        const size_t kept = name_.size();
        if (!name_.ends_with('.'))
            name_ += '.';
        const size_t base = name_.size();
        bool more = true;
        for (size_t i = 0; more && i < what.children.size(); ++i) {
            const scheme &child = *what.children[i];
            name_ += child.name;
            if (child.is_object())
                name_ += '.';
            more = arguments(child, depth - 1, true);
            name_.resize(base);
        }
        name_.resize(kept);
        return more;
    }

    tree *tree_;
    role who_;
    Visit visit_;
    std::string name_;
};

template <class Visit>
bool walk(tree *over, role who, const place &start, const std::string &name, int64_t depth, bool self, Visit visit)
{
    return walker<Visit>(over, who, visit).place_and_below(start, name, depth, self);
}

// The name of an argument relative to its method.
std::string argument_name(const scheme *what)
{
    std::string name;
    for (; what != nullptr && what->kind != node_kind::method; what = what->parent)
        name.insert(0, what->name + (what->is_object() ? "." : ""));
    return name;
}

std::string place_name(const place &where)
{
    std::string name = tree::name(where.at);
    if (where.at->what != where.what)
        name += "." + argument_name(where.what);
    return name;
}

bool may_read(const scheme &what, role who)
{
    return who >= (what.is_object() ? what.reach : what.read);
}

fault denied(std::string_view name)
{
    return {code::denied, std::string(name) + " may not be read by this user", "", true};
}

std::string_view text_of(const json_t *name)
{
    return {json_string_value(name), json_string_length(name)};
}

class list_writer
{
public:
    explicit list_writer(answer_text answer) : answer_(answer) { answer.out->append("{\"ParameterList\":["); }

    std::string *entry(const std::string &name)
    {
        if (!first_)
            answer_.out->push_back(',');
        first_ = false;
        answer_.out->append("{\"Name\":\"").append(name).append("\",");
        return answer_.out;
    }
    bool close_entry()
    {
        answer_.out->push_back('}');
        return !answer_.full();
    }
    fault finish()
    {
        answer_.out->append("]}");
        return answer_.full() ? too_large() : fault{};
    }

private:
    answer_text answer_;
    bool first_ = true;
};

void write_template(std::string *out, const scheme &element, role who)
{
    out->append(",\"Template\":[{\"Name\":\"\",\"Attributes\":");
    scheme_attributes(out, element, who);
    out->push_back('}');
    for (const auto &child : element.children) {
        out->append(",{\"Name\":\"").append(child->name);
        out->append(child->is_object() ? ".\",\"Attributes\":" : "\",\"Attributes\":");
        scheme_attributes(out, *child, who);
        out->push_back('}');
    }
    out->push_back(']');
}

} // namespace

fault query_names(tree *from, role who, std::string_view path, bool next_level, answer_text answer)
{
    const place start = from->find(path);
    if (!start)
        return no_such_node(path);
    if (!may_read(*start.what, who))
        return denied(path);
    list_writer list(answer);
    const bool is_root = start.what->parent == nullptr;
    walk(from, who, start, place_name(start), next_level ? 1 : endless, !next_level && !is_root,
         [&list](node *, const scheme &what, const std::string &name, int64_t) {
             list.entry(name)->append(what.writable ? "\"Writable\":true" : "\"Writable\":false");
             return list.close_entry();
         });
    return list.finish();
}

fault query_values(tree *from, role who, const json_t *names, answer_text answer)
{
    const bool single = json_array_size(names) == 1;
    list_writer list(answer);
    size_t i = 0;
    const json_t *item = nullptr;
    json_array_foreach(names, i, item)
    {
        const std::string_view name = text_of(item);
        const place start = from->find(name);
        fault problem;
        if (!start)
            problem = no_such_node(name);
        else if (start.what->kind == node_kind::method || start.at->what != start.what)
            problem = {code::bad_name, std::string(name) + " has no value", ""};
        else if (!may_read(*start.what, who))
            problem = denied(name);
        if (problem) {
            if (single)
                return problem;
            continue;
        }
        const bool fits = walk(from, who, start, place_name(start), endless, true,
                               [&](node *at, const scheme &what, const std::string &full, int64_t) {
                                   if (at == nullptr || what.kind != node_kind::parameter || who < what.read)
                                       return true;
                                   std::string *out = list.entry(full);
                                   out->append("\"Value\":");
                                   json_write_value(out, readable_value(from, at, who).get());
                                   return list.close_entry();
                               });
        if (!fits)
            return too_large();
    }
    return list.finish();
}

fault query_attributes(tree *from, role who, const json_t *names, int64_t depth, answer_text answer)
{
    const bool single = json_array_size(names) == 1;
    list_writer list(answer);
    size_t i = 0;
    const json_t *item = nullptr;
    json_array_foreach(names, i, item)
    {
        const std::string_view name = text_of(item);
        const place start = from->find(name);
        if (!start || !may_read(*start.what, who)) {
            if (single)
                return start ? denied(name) : no_such_node(name);
            continue;
        }
        const bool whole = start.what->kind == node_kind::method;
        const bool fits =
            walk(from, who, start, place_name(start),
                 depth >= 0 ? depth
                 : whole    ? endless
                            : 1,
                 start.what->parent != nullptr, [&](node *, const scheme &what, const std::string &full, int64_t left) {
                     std::string *out = list.entry(full);
                     out->append("\"Attributes\":");
                     scheme_attributes(out, what, who);
                     if (what.kind == node_kind::table && left > 0 && who >= what.reach)
                         write_template(out, *what.element, who);
                     return list.close_entry();
                 });
        if (!fits)
            return too_large();
    }
    return list.finish();
}

} // namespace veld

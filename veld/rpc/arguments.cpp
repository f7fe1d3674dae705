#include "veld/rpc/arguments.h"

#include "base/json_write.h"
#include "veld/model/check.h"

#include <unordered_set>

namespace veld
{

namespace
{

const scheme *find_argument(const scheme &method, std::string_view name)
{
    const scheme *here = &method;
    while (here != nullptr) {
        const size_t dot = name.find('.');
        const int at = here->find(name.substr(0, dot));
        here = at < 0 ? nullptr : here->children[static_cast<size_t>(at)].get();
        if (dot == std::string_view::npos)
            return here;
        name.remove_prefix(dot + 1);
    }
    return nullptr;
}

json_t *defaults(const scheme &of)
{
    json_t *out = json_object();
    for (const auto &child : of.children) {
        if (child->output)
            continue;
        if (child->is_object())
            json_object_set_new(out, child->name.c_str(), defaults(*child));
        else
            json_object_set(out, child->name.c_str(), child->factory ? child->factory.get() : child->initial.get());
    }
    return out;
}

void set_argument(json_t *input, const scheme *what, json_t *value)
{
    std::vector<const scheme *> down;
    for (const scheme *at = what->parent; at->kind != node_kind::method; at = at->parent)
        down.push_back(at);
    json_t *here = input;
    for (auto at = down.rbegin(); at != down.rend(); ++at)
        here = json_object_get(here, (*at)->name.c_str());
    json_object_set(here, what->name.c_str(), value);
}

} // namespace

fault arguments_check(const scheme &method, const json_t *list, json_ref *input)
{
    input->reset(defaults(method));
    fault problem;
    std::unordered_set<const scheme *> named;
    const auto refuse = [&problem](std::string_view name, code why, std::string_view text) {
        problem.code = !problem || problem.code == why ? why : code::bad_arguments;
        problem.message = "the method was not run";
        problem.data += problem.data.empty() ? "{" : ",";
        json_write_string(&problem.data, name);
        problem.data += ':';
        json_write_string(&problem.data, text);
    };
    size_t i = 0;
    const json_t *item = nullptr;
    json_array_foreach(list, i, item)
    {
        const json_t *text = json_object_get(item, "Name");
        const std::string_view name{json_string_value(text), json_string_length(text)};
        const scheme *what = find_argument(method, name);
        json_ref kept;
        if (what == nullptr || what->kind != node_kind::parameter || what->output) {
            refuse(name, code::bad_arguments, what == nullptr ? "no such argument" : "is not an input argument");
        } else if (!named.insert(what).second) {
            refuse(name, code::bad_arguments, "is given more than once");
        } else if (const fault wrong = value_check(*what, json_object_get(item, "Value"), &kept)) {
            refuse(name, wrong.code, wrong.message);
        } else {
            set_argument(input->get(), what, kept.get());
        }
    }
    if (problem)
        problem.data += '}';
    return problem;
}

} // namespace veld

#include "veld/model/query.h"

#include "base/json_write.h"
#include "veld/model/secret.h"

#include <limits>
#include <utility>

namespace veld
{

namespace
{

constexpr int64_t endless = std::numeric_limits<int64_t>::max();

fault too_large()
{
    return {code::resources, "the answer would be larger than a message may be", ""};
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

model_walk::model_walk(tree *over, role who, visitor visit) : tree_(over), who_(who), visit_(std::move(visit)) {}

bool model_walk::begin(const place &start, std::string name, int64_t depth, bool self)
{
    name_ = std::move(name);
    stack_.clear();
    return start.at->what == start.what ? enter(start.at, depth, self) : arguments(*start.what, depth, self);
}

bool model_walk::next()
{
    frame &top = stack_.back();
    name_.resize(top.name_size);
    node *one = nullptr;
    if (top.row < top.rows.size()) {
        one = top.rows[top.row++];
        json_write_integer(&name_, one->number);
    } else if (top.child < top.at->children.size()) {
        one = top.at->children[top.child++].get();
        name_ += one->what->name;
    } else {
        stack_.pop_back();
        return true;
    }
    if (one->what->is_object())
        name_ += '.';
    return enter(one, top.depth - 1, true);
}

bool model_walk::enter(node *at, int64_t depth, bool self)
{
    const scheme &what = *at->what;
    if (self && !visit_(at, what, name_, depth))
        return false;
    if (depth == 0 || who_ < what.reach)
        return true;
    if (what.kind == node_kind::method)
        return below(what, depth);
    if (at->table || !at->children.empty())
        stack_.push_back({at, depth, name_.size(), at->table ? tree_->listed(at) : std::vector<node *>{}});
    return true;
}

bool model_walk::arguments(const scheme &what, int64_t depth, bool self)
{
    if (self && !visit_(nullptr, what, name_, depth))
        return false;
    return depth == 0 || below(what, depth);
}

bool model_walk::below(const scheme &what, int64_t depth)
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

query::query(tree *from, role who, kind asked, json_ref names, int64_t depth, bool next_level)
    : tree_(from), who_(who), asked_(asked), names_(std::move(names)), depth_(depth), next_level_(next_level),
      walk_(from, who, [this](node *at, const scheme &what, const std::string &name, int64_t left) {
          return visit(at, what, name, left);
      })
{
}

std::unique_ptr<query> query::of_names(tree *from, role who, std::string_view path, bool next_level)
{
    json_ref names{json_array()};
    json_array_append_new(names.get(), json_stringn_nocheck(path.data(), path.size()));
    return std::unique_ptr<query>(new query(from, who, kind::names, std::move(names), 0, next_level));
}

std::unique_ptr<query> query::of_values(tree *from, role who, const json_t *names)
{
    json_ref shared = json_ref::share(const_cast<json_t *>(names));
    return std::unique_ptr<query>(new query(from, who, kind::values, std::move(shared), endless, false));
}

std::unique_ptr<query> query::of_attributes(tree *from, role who, const json_t *names, int64_t depth)
{
    json_ref shared = json_ref::share(const_cast<json_t *>(names));
    return std::unique_ptr<query>(new query(from, who, kind::attributes, std::move(shared), depth, false));
}

bool query::proceed(answer_text answer, const std::function<bool()> &enough)
{
    answer_ = answer;
    if (std::exchange(fresh_, false))
        answer_.out->append("{\"ParameterList\":[");
    while (!problem_) {
        if (walk_.over()) {
            if (next_name_ == json_array_size(names_.get())) {
                answer_.out->append("]}");
                if (answer_.full())
                    problem_ = too_large();
                return true;
            }
            begin_name(text_of(json_array_get(names_.get(), next_name_++)));
        } else if (!walk_.next()) {
            problem_ = too_large();
        }
        if (!problem_ && enough())
            return false;
    }
    return true;
}

void query::begin_again()
{
    fresh_ = first_ = true;
    next_name_ = 0;
    walk_.end();
}

// What is wrong with one of several names leaves it out.
void query::begin_name(std::string_view name)
{
    const place start = tree_->find(name);
    fault problem;
    if (!start)
        problem = no_such_node(name);
    else if (asked_ == kind::values && (start.what->kind == node_kind::method || start.at->what != start.what))
        problem = {code::bad_name, std::string(name) + " has no value", ""};
    else if (!may_read(*start.what, who_))
        problem = denied(name);
    if (problem) {
        if (json_array_size(names_.get()) == 1)
            problem_ = std::move(problem);
        return;
    }
    const bool is_root = start.what->parent == nullptr;
    int64_t depth = endless;
    bool self = true;
    if (asked_ == kind::names) {
        depth = next_level_ ? 1 : endless;
        self = !next_level_ && !is_root;
    } else if (asked_ == kind::attributes) {
        const bool whole = start.what->kind == node_kind::method;
        depth = depth_ >= 0 ? depth_ : whole ? endless : 1;
        self = !is_root;
    }
    if (!walk_.begin(start, place_name(start), depth, self))
        problem_ = too_large();
}

bool query::visit(node *at, const scheme &what, const std::string &name, int64_t left)
{
    if (asked_ == kind::values && (at == nullptr || what.kind != node_kind::parameter || who_ < what.read))
        return true;
    std::string *out = answer_.out;
    if (!std::exchange(first_, false))
        out->push_back(',');
    out->append("{\"Name\":\"").append(name).append("\",");
    switch (asked_) {
    case kind::names:
        out->append(what.writable ? "\"Writable\":true" : "\"Writable\":false");
        break;
    case kind::values:
        out->append("\"Value\":");
        json_write_value(out, readable_value(tree_, at, who_).get());
        break;
    case kind::attributes:
        out->append("\"Attributes\":");
        scheme_attributes(out, what, who_);
        if (what.kind == node_kind::table && left > 0 && who_ >= what.reach)
            write_template(out, *what.element, who_);
        break;
    }
    out->push_back('}');
    return !answer_.full();
}

namespace
{

fault whole(const std::unique_ptr<query> &asked, answer_text answer)
{
    asked->proceed(answer, [] { return false; });
    return asked->problem();
}

} // namespace

fault query_names(tree *from, role who, std::string_view path, bool next_level, answer_text answer)
{
    return whole(query::of_names(from, who, path, next_level), answer);
}

fault query_values(tree *from, role who, const json_t *names, answer_text answer)
{
    return whole(query::of_values(from, who, names), answer);
}

fault query_attributes(tree *from, role who, const json_t *names, int64_t depth, answer_text answer)
{
    return whole(query::of_attributes(from, who, names, depth), answer);
}

} // namespace veld

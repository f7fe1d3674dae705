// The three questions about a model: which names, which values, which attributes.
#pragma once

#include "veld/base/fault.h"
#include "veld/model/tree.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace veld
{

/// Where an answer is written, and how long it may get in all.
struct answer_text {
    std::string *out;
    size_t limit;

    bool full() const { return out->size() > limit; }
};

/// A way through a place and what is below it in the order of answers, step by step. What the role may not read is
/// visited, what is below it is not.
class model_walk
{
public:
    /// Gets a node, or null for an argument of a method, its scheme, its name and how much depth is left; returns false
    /// to stop.
    using visitor = std::function<bool(node *at, const scheme &what, const std::string &name, int64_t depth)>;

    model_walk(tree *over, role who, visitor visit);

    /// `name` must be the place's name. The place itself is visited when `self` is set. False when stopped.
    bool begin(const place &start, std::string name, int64_t depth, bool self);
    bool over() const { return stack_.empty(); }
    /// Visits one node more, or finds that an object has no more; not when over. False when stopped.
    bool next();
    void end() { stack_.clear(); }

private:
    struct frame { // an object whose children and instances are on their way
        node *at;
        int64_t depth;
        size_t name_size;
        std::vector<node *> rows;
        size_t row = 0;
        size_t child = 0;
    };
    bool enter(node *at, int64_t depth, bool self);
    bool arguments(const scheme &what, int64_t depth, bool self);
    bool below(const scheme &what, int64_t depth);

    tree *tree_;
    role who_;
    visitor visit_;
    std::string name_;
    std::vector<frame> stack_;
};

/// A question that is answered in slices. Between them the tree has to keep the past for it (tree.h).
class query
{
public:
    static std::unique_ptr<query> of_names(tree *from, role who, std::string_view path, bool next_level);
    /// Share `names`, an array of texts.
    static std::unique_ptr<query> of_values(tree *from, role who, const json_t *names);
    /// `depth` negative: not given.
    static std::unique_ptr<query> of_attributes(tree *from, role who, const json_t *names, int64_t depth);
    query(const query &) = delete;
    query &operator=(const query &) = delete;

    /// Appends more of the result object until it is whole, or `enough` says so. Returns whether it has come to its
    /// end; problem() then says whether what was appended is the result, or is to be thrown away.
    bool proceed(answer_text answer, const std::function<bool()> &enough);
    const fault &problem() const { return problem_; }
    /// Forgets what it has come to.
    void begin_again();

private:
    enum class kind { names, values, attributes };
    query(tree *from, role who, kind asked, json_ref names, int64_t depth, bool next_level);
    void begin_name(std::string_view name);
    bool visit(node *at, const scheme &what, const std::string &name, int64_t left);

    tree *tree_;
    role who_;
    kind asked_;
    json_ref names_;
    int64_t depth_;
    bool next_level_;
    model_walk walk_;
    size_t next_name_ = 0;
    bool fresh_ = true; // nothing is written
    bool first_ = true; // no entry is
    answer_text answer_ = {};
    fault problem_;
};

/// The same in one go. Each appends the result object, {"ParameterList":[...]}. On a fault what was appended is to be
/// thrown away.
fault query_names(tree *from, role who, std::string_view path, bool next_level, answer_text answer);
fault query_values(tree *from, role who, const json_t *names, answer_text answer);
fault query_attributes(tree *from, role who, const json_t *names, int64_t depth, answer_text answer);

} // namespace veld

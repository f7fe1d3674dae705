// Several backends as one.
#include "veld/backend/backends.h"

#include "platform/ve_json.h"
#include "veld/model/scheme.h"

#include <gtest/gtest.h>

using namespace veld;

namespace
{

/// Serves one node, and tells what it was asked to do.
class one_node : public device_backend
{
public:
    explicit one_node(const scheme &own) : own_(own) {}
    bool knows(backend_use, std::string_view) const override { return true; }
    backend_part serves(backend_use, const scheme &what, const std::string &) override
    {
        return &what == &own_ ? backend_part::always : backend_part::none;
    }
    json_ref read(const scheme &, const std::string &) override { return {}; }
    json_ref rows(const scheme &, const std::string &) override { return {}; }
    fault apply(const std::vector<backend_change> &changes, size_t *which) override
    {
        for (const backend_change &one : changes)
            applied += *one.path + "=" + std::to_string(json_integer_value(one.value)) + " ";
        *which = 0;
        return refusal;
    }
    std::unique_ptr<job> run(const scheme &, const std::string &, const json_t *,
                             const std::function<std::string(std::string_view)> &, job_outcome *) override
    {
        return nullptr;
    }
    void announced(const std::string &) override {}

    fault refusal;
    std::string applied;

private:
    const scheme &own_;
};

} // namespace

TEST(Backends, DoWhatOneOfThemDoes)
{
    struct rebooting : one_node {
        using one_node::one_node;
        bool does(backend_deed deed) const override { return deed == backend_deed::reboot; }
    };
    scheme what;
    one_node first(what);
    rebooting second(what);
    EXPECT_FALSE(backends({&first}).does(backend_deed::reboot));
    backends both({&first, &second});
    EXPECT_TRUE(both.does(backend_deed::reboot));
    EXPECT_FALSE(both.does(backend_deed::flash));
    // A method that none of them runs.
    job_outcome outcome;
    EXPECT_FALSE(both.run(
        what, "M", nullptr, [](std::string_view) { return std::string(); }, &outcome));
    EXPECT_EQ(outcome.problem.code, code::not_supported);
}

TEST(Backends, WhatOneRefusesTheOthersTakeBack)
{
    scheme what[3];
    const std::string paths[] = {"A", "B", "C"};
    one_node first(what[0]);
    one_node second(what[1]);
    one_node third(what[2]);
    backends all({&first, &second, &third});
    std::vector<backend_change> changes;
    const json_ref before{json_integer(1)};
    const json_ref wanted{json_integer(2)};
    for (const size_t i : {2, 0, 1}) {
        EXPECT_EQ(all.serves(backend_use::set, what[i], paths[i]), backend_part::always);
        changes.push_back({&what[i], &paths[i], wanted.get(), before.get()});
    }
    size_t which = 99;
    EXPECT_EQ(all.apply(changes, &which).code, code::none);
    EXPECT_EQ(first.applied + second.applied + third.applied, "A=2 B=2 C=2 ");
    first.applied = second.applied = third.applied = "";
    third.refusal = {code::denied, "no", ""};
    EXPECT_EQ(all.apply(changes, &which).code, code::denied);
    EXPECT_EQ(which, 0U);
    EXPECT_EQ(first.applied, "A=2 A=1 ");
    EXPECT_EQ(second.applied, "B=2 B=1 ");
    EXPECT_EQ(third.applied, "C=2 ");
}

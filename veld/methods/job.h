// What the methods share: their clock, their arguments, and their makers.
#pragma once

#include "veld/methods/methods.h"

#include <jansson.h>

namespace veld
{

/// What a maker may look at.
struct method_call {
    const json_t *input;
    const std::function<std::string(std::string_view path)> &text_of;
    job_outcome *refused;

    std::string text(const char *argument) const;
    /// An integer argument, brought into the bounds.
    int64_t number(const char *argument, int64_t low, int64_t high) const;
    /// The machine's name of the interface that the path in the argument "Interface" leads to, empty when none is
    /// given. False when there is no such interface; the call is then refused.
    bool interface(std::string *name) const;
    /// Refuses the call because of one argument. Returns null for the maker to return.
    std::unique_ptr<method_job> refuse(const char *argument, const std::string &what) const;
};

std::unique_ptr<method_job> make_ipping(const method_call &call);
std::unique_ptr<method_job> make_nslookup(const method_call &call);

} // namespace veld

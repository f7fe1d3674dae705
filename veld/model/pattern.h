// A value's pattern: anchored at both ends, and bounded in what a match may cost.
#pragma once

#include <memory>
#include <string>
#include <string_view>

struct pcre2_real_code_8;

namespace veld
{

class pattern
{
public:
    /// Compiles `expression`; null when it is no regular expression, `*error` then says why.
    static std::unique_ptr<pattern> compile(const std::string &expression, std::string *error);
    pattern(const pattern &) = delete;
    pattern &operator=(const pattern &) = delete;
    ~pattern();

    /// True when the whole of `text` (UTF-8) matches. A match that would cost too much counts as none.
    bool matches(std::string_view text) const;
    const std::string &expression() const { return expression_; }

private:
    pattern(std::string expression, pcre2_real_code_8 *code) : expression_(std::move(expression)), code_(code) {}

    std::string expression_;
    pcre2_real_code_8 *code_;
};

} // namespace veld

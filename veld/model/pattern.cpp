#define PCRE2_CODE_UNIT_WIDTH 8
#include "veld/model/pattern.h"

#include "veld/base/memory.h"

#include <cstdlib>
#include <pcre2.h>

namespace veld
{

namespace
{

constexpr uint32_t step_limit = 200000;
constexpr uint32_t depth_limit = 2000;
constexpr uint32_t heap_limit_kib = 4096;

// The library cannot say whether memory or the expression is the reason that it has none to give.
pcre2_general_context *memory()
{
    static pcre2_general_context *const context =
        pcre2_general_context_create([](size_t size, void *) { return fatal_realloc(nullptr, size); },
                                     [](void *memory, void *) { free(memory); }, nullptr);
    return context;
}

pcre2_compile_context *settings()
{
    static pcre2_compile_context *const context = pcre2_compile_context_create(memory());
    return context;
}

// One for all matches: they never overlap.
pcre2_match_context *limits()
{
    static pcre2_match_context *const context = [] {
        pcre2_match_context *made = pcre2_match_context_create(memory());
        pcre2_set_match_limit(made, step_limit);
        pcre2_set_depth_limit(made, depth_limit);
        pcre2_set_heap_limit(made, heap_limit_kib);
        return made;
    }();
    return context;
}

} // namespace

std::unique_ptr<pattern> pattern::compile(const std::string &expression, std::string *error)
{
    int code = 0;
    PCRE2_SIZE offset = 0;
    // Grouped, so that the anchors hold for every alternative.
    const std::string grouped = "(?:" + expression + ")";
    pcre2_code *compiled = pcre2_compile(reinterpret_cast<PCRE2_SPTR>(grouped.data()), grouped.size(),
                                         PCRE2_ANCHORED | PCRE2_ENDANCHORED | PCRE2_UTF | PCRE2_DOLLAR_ENDONLY, &code,
                                         &offset, settings());
    if (compiled == nullptr) {
        PCRE2_UCHAR text[160] = {};
        pcre2_get_error_message(code, text, sizeof text);
        *error = reinterpret_cast<const char *>(text);
        return nullptr;
    }
    return std::unique_ptr<pattern>(new pattern(expression, compiled));
}

pattern::~pattern()
{
    pcre2_code_free(code_);
}

bool pattern::matches(std::string_view text) const
{
    static pcre2_match_data *const match = pcre2_match_data_create(1, memory());
    const auto *subject = reinterpret_cast<PCRE2_SPTR>(text.data() != nullptr ? text.data() : "");
    return pcre2_match(code_, subject, text.size(), 0, 0, match, limits()) >= 0;
}

} // namespace veld

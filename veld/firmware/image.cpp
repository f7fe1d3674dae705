#include "veld/firmware/image.h"

#include "base/number.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace veld
{

namespace
{

constexpr std::string_view magic = "VELD-FIRMWARE";
constexpr std::string_view format = "1";
constexpr size_t version_max = 64;
constexpr int usual_failure = -1;

std::string_view take_word(std::string_view *rest)
{
    const size_t blank = rest->find(' ');
    const std::string_view word = rest->substr(0, blank);
    *rest = blank == std::string_view::npos ? std::string_view{} : rest->substr(blank + 1);
    return word;
}

// "[PRODUCT-]MAJOR.MINOR.BUILD", with further numbers behind the build.
bool good_version(std::string_view version)
{
    const size_t dash = version.rfind('-');
    if (dash != std::string_view::npos) {
        for (const char c : version.substr(0, dash)) {
            if (isalnum(static_cast<unsigned char>(c)) == 0 && c != '-' && c != '_')
                return false;
        }
        if (dash == 0)
            return false;
        version.remove_prefix(dash + 1);
    }
    int parts = 0;
    while (true) {
        const size_t dot = version.find('.');
        const std::string_view part = version.substr(0, dot);
        if (part.empty() || part.size() > 9 || part.find_first_not_of("0123456789") != std::string_view::npos)
            return false;
        ++parts;
        if (dot == std::string_view::npos)
            return parts >= 3;
        version.remove_prefix(dot + 1);
    }
}

// Takes the next number of "1.2.3", without leading zeros; empty for 0 and when there is none.
std::string_view take_number(std::string_view *numbers)
{
    const size_t dot = numbers->find('.');
    std::string_view part = numbers->substr(0, dot);
    part.remove_prefix(std::min(part.find_first_not_of('0'), part.size()));
    *numbers = dot == std::string_view::npos ? std::string_view{} : numbers->substr(dot + 1);
    return part;
}

bool take_flag(std::string_view flag, image_header *into)
{
    if (flag == "fail") {
        into->failure = usual_failure;
        return true;
    }
    static constexpr std::string_view named = "fail=";
    if (!flag.starts_with(named))
        return false;
    into->failure = number_of<int>(flag.substr(named.size())).value_or(0);
    return into->failure < 0;
}

struct file_closer {
    void operator()(FILE *file) const { fclose(file); }
};

int failed(const std::string &what)
{
    fprintf(stderr, "veld: %s: %s\n", what.c_str(), strerror(errno));
    return EXIT_FAILURE;
}

} // namespace

bool image_header_parse(const std::string &line, image_header *into, std::string *error)
{
    std::string_view rest = line;
    if (take_word(&rest) != magic) {
        *error = "not a firmware image";
        return false;
    }
    if (take_word(&rest) != format) {
        *error = "a firmware image of an unknown format";
        return false;
    }
    into->version = take_word(&rest);
    if (into->version.size() > version_max || !good_version(into->version)) {
        *error = "the firmware image has no good version";
        return false;
    }
    while (!rest.empty()) {
        const std::string_view flag = take_word(&rest);
        if (!take_flag(flag, into)) {
            *error = "the firmware image has the unknown flag \"" + std::string(flag) + "\"";
            return false;
        }
    }
    return true;
}

bool same_version(std::string_view a, std::string_view b)
{
    // The product is what stands before the last dash; without one there is none.
    const size_t dash_a = a.rfind('-') + 1;
    const size_t dash_b = b.rfind('-') + 1;
    if (a.substr(0, dash_a) != b.substr(0, dash_b))
        return false;
    a.remove_prefix(dash_a);
    b.remove_prefix(dash_b);
    if (a.empty() != b.empty())
        return false;
    while (!a.empty() || !b.empty()) {
        if (take_number(&a) != take_number(&b))
            return false;
    }
    return true;
}

int image_make(const std::string &version, const std::string &payload, const std::string &output)
{
    const std::string line = std::string(magic) + " " + std::string(format) + " " + version;
    image_header header;
    std::string error;
    if (!image_header_parse(line, &header, &error)) {
        fprintf(stderr, "veld: \"%s\" is no version: PRODUCT-1.2.3 and 1.2.3 are, with flags behind a blank\n",
                version.c_str());
        return EXIT_FAILURE;
    }
    const std::unique_ptr<FILE, file_closer> content(payload.empty() ? nullptr : fopen(payload.c_str(), "rbe"));
    if (!payload.empty() && !content)
        return failed(payload);
    const std::unique_ptr<FILE, file_closer> file(output.empty() ? nullptr : fopen(output.c_str(), "wbe"));
    if (!output.empty() && !file)
        return failed(output);
    FILE *to = file ? file.get() : stdout;
    fprintf(to, "%s\n", line.c_str());
    char bytes[65536];
    size_t count = 0;
    while (content && (count = fread(bytes, 1, sizeof bytes, content.get())) > 0)
        fwrite(bytes, 1, count, to);
    if (content && ferror(content.get()) != 0)
        return failed(payload);
    if (fflush(to) != 0 || ferror(to) != 0)
        return failed(output.empty() ? "standard output" : output);
    return EXIT_SUCCESS;
}

} // namespace veld

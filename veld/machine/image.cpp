#include "veld/machine/image.h"

#include "base/fd.h"
#include "base/file.h"
#include "base/number.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace veld
{

namespace
{

constexpr std::string_view magic = "VELD-FIRMWARE";
constexpr std::string_view format = "1";
constexpr size_t version_max = 64;
constexpr int usual_failure = -1;
constexpr size_t block = 65536;

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
    const fd_owner content(payload.empty() ? -1 : ::open(payload.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY));
    if (!payload.empty() && !content)
        return failed(payload);
    std::string unread;
    const auto write_image = [&](int to) {
        if (!write_all(to, line + "\n"))
            return false;
        std::string bytes(block, '\0');
        ssize_t count = 0;
        while (content && (count = read(content.get(), bytes.data(), bytes.size())) != 0) {
            if (count < 0 && errno != EINTR) {
                unread = payload;
                return false;
            }
            if (count > 0 && !write_all(to, std::string_view(bytes).substr(0, static_cast<size_t>(count))))
                return false;
        }
        return true;
    };
    if (!write_result(output, write_image))
        return failed(!unread.empty() ? unread : output.empty() ? "standard output" : output);
    return EXIT_SUCCESS;
}

} // namespace veld

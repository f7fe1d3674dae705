// What a firmware image says about itself in its first line: docs/firmware-image.md.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace veld
{

struct image_header {
    std::string version;
    /// What UpgradeStatus becomes when flashing this image fails half-way; 0 for an image that flashes well.
    int failure = 0;
};

/// The longest header line, without its line feed.
inline constexpr size_t image_header_max = 256;

/// Reads the first line of an image. False when it is no header, `*error` then says why.
bool image_header_parse(const std::string &line, image_header *into, std::string *error);

/// `veld --make-image VERSION`: makes an image the file `output`, in one step, or writes it to standard output when
/// that is empty. `payload`: the file whose content follows the header; empty for none. Returns the exit status.
int image_make(const std::string &version, const std::string &payload, const std::string &output);

} // namespace veld

// Conversions of typed texts.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "base/utf8.h"
#include "base/visible.h"
#include "cdpath/dm_path.h"
#include "platform/ve_fs.h"
#include "platform/ve_string.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    uint32_t u;
    int32_t i;
    double d;
    ve_string_strtoul(text.c_str(), 10, &u);
    ve_string_strtol(text.c_str(), 10, &i);
    ve_string_strtod(text.c_str(), &d);
    const std::string shown = visible(text);
    if (!utf8_valid(shown) || visible(shown) != shown)
        abort();
    ve_url_parse(text.c_str());
    ve_firmware_version_cmp(text.c_str(), text.c_str() + size / 2);
    dm_path::is_instance(text);
    dm_path path(text);
    path.push(path.relative(text));
    return 0;
}

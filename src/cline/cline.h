// The command line as options.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

enum run_mode : uint32_t {
    mode_interactive = 0,
    mode_raw = 1,
    mode_listen = 2,
    mode_request = 3,
    mode_notify = 4,
    mode_event = 5,
    mode_script = 6,
    mode_lua_script = 7
};

inline constexpr uint32_t cline_groups_max = 64;

/// What the command line asks for. Texts are borrowed from the process arguments. Zero-filled before parsing.
struct cline_options {
    uint32_t groups_count;
    int32_t groups[cline_groups_max];
    uint32_t mode;
    union {
        const char *name; ///< request and notify modes
        uint32_t event;   ///< event mode
    };
    std::vector<std::string> params; ///< in UTF-8, but for that of the raw mode
    const char *address;
    const char *unixpath;
    const char *script;
    const char *config;
    uint8_t ssl;
};

/// Returns 0 when the program is to run, 1 when it printed help or the version, -1 on a usage error (told on standard
/// error).
int cline_parse(int argc, char **argv, cline_options *options);
void cline_usage(FILE *stream);

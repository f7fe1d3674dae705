// The daemon's command line.
#pragma once

#include "veld/model/given.h"
#include "veld/session/first_users.h"

#include <cstdint>
#include <string>
#include <vector>

namespace veld
{

struct options {
    std::vector<std::string> sockets;     ///< paths
    std::vector<std::string> listen;      ///< addresses of the form tcp://HOST:PORT
    std::string tls_certificate, tls_key; ///< set together: every socket then speaks TLS
    std::string import;                   ///< a data model to import instead of serving anything; empty: none
    std::string output;                   ///< the file that an import or an image goes to; empty: standard output
    uint32_t populate = 0, populate_nested = 1;
    std::string model;                ///< of an import: which of several models; empty: "gateway", or all of them
    role anonymous = role::anonymous; ///< what those may do who have not logged in
    std::vector<first_user> users;    ///< without their passwords yet
    std::string password_file;        ///< of these users; empty: the terminal, or standard input
    given_values values;
    std::string behaviour; ///< a file with what the device does; empty: the machine alone
    bool trust_behaviour = false;
    std::string log;
    std::string state; ///< directory of what survives a restart; empty: nothing does
    std::string files; ///< directory of downloaded files; empty: below the state's
    uint64_t download_limit = uint64_t{4} << 30;
    int64_t download_stall_ms = 10000;
    int64_t flash_ms = 5000;
    std::string image_version, image_payload; ///< a firmware image to make instead of serving anything
    int64_t reboot_ms = 3000;
    std::string run_as, socket_group; ///< empty: no other than it is started as
    uint32_t socket_mode = 0666;
};

/// The socket that is served when no other is named or handed over.
inline constexpr const char *default_socket = "/var/run/veld.sock";

enum class options_outcome { run, done, wrong };

/// Parses the command line. Help and the version go to standard output ("done"), what is wrong to standard error.
options_outcome options_parse(int argc, char **argv, options *out);

} // namespace veld

#include "veld/state/workspace.h"

#include "veld/state/store.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ftw.h>
#include <unistd.h>

namespace veld
{

namespace
{

constexpr int open_at_once = 8;

int remove_entry(const char *path, const struct stat *, int, FTW *)
{
    return remove(path);
}

bool make_absolute(std::string *path, std::string *error)
{
    if (!make_directories(*path, error))
        return false;
    char *absolute = realpath(path->c_str(), nullptr);
    if (absolute == nullptr) {
        *error = *path + ": " + strerror(errno);
        return false;
    }
    *path = absolute;
    free(absolute);
    return true;
}

} // namespace

workspace::~workspace()
{
    if (!temporary_.empty())
        nftw(temporary_.c_str(), remove_entry, open_at_once, FTW_DEPTH | FTW_PHYS);
}

bool workspace::open(const std::string &state, const std::string &files, std::string *error)
{
    std::string base = state;
    if (base.empty()) {
        char name[] = "/var/tmp/veld-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            *error = std::string(name) + ": " + strerror(errno);
            return false;
        }
        base = temporary_ = name;
    }
    spool_ = base + "/spool";
    files_ = files.empty() ? base + "/files" : files;
    return make_absolute(&spool_, error) && make_absolute(&files_, error);
}

} // namespace veld

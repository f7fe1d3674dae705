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
    base_ = state;
    chosen_files_ = files;
    if (!files.empty() && !make_absolute(&chosen_files_, error))
        return false;
    return state.empty() || prepare(error);
}

bool workspace::prepare(std::string *error)
{
    if (base_.empty()) {
        char name[] = "/var/tmp/veld-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            *error = std::string(name) + ": " + strerror(errno);
            return false;
        }
        base_ = temporary_ = name;
    }
    spool_ = base_ + "/spool";
    files_ = chosen_files_.empty() ? base_ + "/files" : chosen_files_;
    return make_absolute(&spool_, error) && make_absolute(&files_, error);
}

} // namespace veld

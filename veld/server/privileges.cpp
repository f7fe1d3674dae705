#include "veld/server/privileges.h"

#include "base/number.h"

#include <cerrno>
#include <cstring>
#include <ftw.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace veld
{

namespace
{

constexpr int open_at_once = 8;

// What nftw's function is about; it takes no argument of ours.
const system_account *receiver = nullptr;

int give_entry(const char *path, const struct stat *, int, FTW *)
{
    return lchown(path, receiver->user, receiver->group);
}

} // namespace

bool find_account(const std::string &name, system_account *found, std::string *error)
{
    const passwd *entry = getpwnam(name.c_str());
    if (entry == nullptr) {
        const auto number = number_of<uid_t>(name);
        entry = number ? getpwuid(*number) : nullptr;
    }
    if (entry == nullptr) {
        *error = name + ": no such user";
        return false;
    }
    *found = {entry->pw_name, entry->pw_uid, entry->pw_gid};
    return true;
}

bool find_group(const std::string &name, gid_t *found, std::string *error)
{
    const group *entry = getgrnam(name.c_str());
    const auto number = number_of<gid_t>(name);
    if (entry == nullptr && !number) {
        *error = name + ": no such group";
        return false;
    }
    *found = entry != nullptr ? entry->gr_gid : *number;
    return true;
}

bool give_away(const std::string &directory, const system_account &to, std::string *error)
{
    receiver = &to;
    if (nftw(directory.c_str(), give_entry, open_at_once, FTW_PHYS) == 0)
        return true;
    *error = directory + ": " + strerror(errno);
    return false;
}

bool become(const system_account &who, std::string *error)
{
    if (initgroups(who.name.c_str(), who.group) != 0 || setresgid(who.group, who.group, who.group) != 0 ||
        setresuid(who.user, who.user, who.user) != 0) {
        *error = "cannot become " + who.name + ": " + strerror(errno);
        return false;
    }
    if (who.user != 0 && setuid(0) == 0) {
        *error = "cannot give up root's rights";
        return false;
    }
    return true;
}

} // namespace veld

#include "veld/session/sessions.h"

#include <algorithm>

namespace veld
{

namespace
{

void add_once(std::vector<uint64_t> *to, uint64_t id)
{
    if (std::find(to->begin(), to->end(), id) == to->end())
        to->push_back(id);
}

} // namespace

void sessions::join(connection_id who, int64_t group, const std::string &text, bool receiver)
{
    // The blank keeps a connection's own session apart from every text that a client may send.
    const std::string key = text.empty() ? " " + std::to_string(who) : "s" + text;
    session &one = sessions_[key];
    add_once(&one.members, who);
    if (receiver)
        add_once(&one.receivers, who);
    add_once(&one.groups[group], who);
    groups_[group].insert(key);
    of_[who].insert(key);
}

void sessions::leave(connection_id who)
{
    const auto known = of_.find(who);
    if (known == of_.end())
        return;
    for (const std::string &key : known->second) {
        session &one = sessions_[key];
        std::erase(one.members, who);
        std::erase(one.receivers, who);
        for (auto group = one.groups.begin(); group != one.groups.end();) {
            std::erase(group->second, who);
            if (!group->second.empty()) {
                ++group;
                continue;
            }
            const auto joined = groups_.find(group->first);
            joined->second.erase(key);
            if (joined->second.empty())
                groups_.erase(joined);
            group = one.groups.erase(group);
        }
        if (one.members.empty())
            sessions_.erase(key);
    }
    of_.erase(known);
}

void sessions::each_in_group(int64_t group, const visitor &call) const
{
    const auto joined = groups_.find(group);
    if (joined == groups_.end())
        return;
    for (const std::string &key : joined->second) {
        const session &one = sessions_.at(key);
        call(one.receivers.empty() ? one.groups.at(group).front() : one.receivers.back(), one.members);
    }
}

size_t sessions::joined(connection_id who) const
{
    const auto known = of_.find(who);
    size_t count = 0;
    if (known != of_.end())
        for (const std::string &key : known->second)
            for (const auto &[group, members] : sessions_.at(key).groups)
                count += static_cast<size_t>(std::count(members.begin(), members.end(), who));
    return count;
}

} // namespace veld

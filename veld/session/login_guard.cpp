#include "veld/session/login_guard.h"

#include <algorithm>
#include <iterator>

namespace veld
{

namespace
{

// Below the time that a client waits for an answer.
constexpr int64_t first_delay_ms = 250;
constexpr int64_t longest_delay_ms = 4000;
constexpr int64_t forgotten_after_ms = 300000;
constexpr size_t most_records = 4096;

std::string pair_key(const std::string &user, const std::string &peer)
{
    return peer + "\n" + user;
}

} // namespace

int64_t login_guard::earliest(const std::string &user, const std::string &peer, int64_t now) const
{
    int64_t time = now;
    for (const std::string &key : {peer, pair_key(user, peer)}) {
        const auto known = records_.find(key);
        if (known != records_.end())
            time = std::max(time, known->second.allowed);
    }
    return time;
}

int64_t login_guard::punish(const std::string &key, int64_t now)
{
    record &one = records_[key];
    one.failures = now - one.last > forgotten_after_ms ? 1 : one.failures + 1;
    one.last = now;
    const int64_t delay = std::min(first_delay_ms << std::min(one.failures - 1, 10), longest_delay_ms);
    one.allowed = now + delay;
    return delay;
}

int64_t login_guard::failed(const std::string &user, const std::string &peer, int64_t now)
{
    forget_old(now);
    // A peer that tries many names is slowed down like one that tries many passwords.
    return std::max(punish(peer, now), punish(pair_key(user.substr(0, 256), peer), now));
}

void login_guard::succeeded(const std::string &user, const std::string &peer)
{
    records_.erase(peer);
    records_.erase(pair_key(user, peer));
}

void login_guard::forget_old(int64_t now)
{
    if (records_.size() < most_records)
        return;
    std::erase_if(records_, [now](const auto &entry) { return now - entry.second.last > forgotten_after_ms; });
    if (records_.size() >= most_records)
        records_.clear();
}

} // namespace veld

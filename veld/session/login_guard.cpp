#include "veld/session/login_guard.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace veld
{

namespace
{

// Below the time that a client waits for an answer.
constexpr int64_t first_delay_ms = 250;
constexpr int64_t longest_delay_ms = 4000;
constexpr int64_t forgotten_after_ms = 300000;
constexpr size_t most_records = 4096;
constexpr size_t name_max = 256;
// An address may serve many people, an account be in many hands: failures there count from here on only.
constexpr int free_of_an_address = 2;
constexpr int free_of_an_account = 10;
// So many attempts at once are everyday life.
constexpr int free_at_once = 4;

std::string pair_key(const std::string &user, const std::string &peer)
{
    return peer + "\n" + user.substr(0, name_max);
}

} // namespace

int64_t login_guard::delay_of(const record &one, int free)
{
    const int counted = one.failures + std::max(one.pending - free_at_once, 0) - free;
    return counted <= 0 ? 0 : std::min(first_delay_ms << std::min(counted - 1, 10), longest_delay_ms);
}

login_guard::record &login_guard::known(records *in, const std::string &key, int64_t now)
{
    if (in->size() >= most_records && in->count(key) == 0)
        in->erase(std::min_element(in->begin(), in->end(),
                                   [](const auto &a, const auto &b) { return a.second.last < b.second.last; }));
    record &one = (*in)[key];
    if (now - one.last > forgotten_after_ms)
        one = {};
    one.last = now;
    return one;
}

int64_t login_guard::admit(const std::string &user, const std::string &peer, int64_t now)
{
    record *const judged[] = {&known(&pairs_, pair_key(user, peer), now), &known(&addresses_, peer, now),
                              &known(&accounts_, user.substr(0, name_max), now)};
    int64_t when = now;
    for (const record *one : judged)
        when = std::max(when, one->allowed);
    when = std::min(when, now + longest_delay_ms);
    const int free[] = {0, free_of_an_address, free_of_an_account};
    for (size_t i = 0; i < std::size(judged); ++i) {
        ++judged[i]->pending;
        if (const int64_t delay = delay_of(*judged[i], free[i]); delay > 0)
            judged[i]->allowed = std::max(judged[i]->allowed, when + delay);
    }
    return when;
}

int64_t login_guard::failed(const std::string &user, const std::string &peer, int64_t now)
{
    record *const judged[] = {&known(&pairs_, pair_key(user, peer), now), &known(&addresses_, peer, now),
                              &known(&accounts_, user.substr(0, name_max), now)};
    const int free[] = {0, free_of_an_address, free_of_an_account};
    int64_t longest = 0;
    for (size_t i = 0; i < std::size(judged); ++i) {
        judged[i]->pending = std::max(judged[i]->pending - 1, 0);
        ++judged[i]->failures;
        const int64_t delay = delay_of(*judged[i], free[i]);
        if (delay > 0)
            judged[i]->allowed = std::max(judged[i]->allowed, now + delay);
        longest = std::max(longest, delay);
    }
    return longest;
}

void login_guard::succeeded(const std::string &user, const std::string &peer)
{
    const auto own = pairs_.find(pair_key(user, peer));
    const int failures = own == pairs_.end() ? 0 : own->second.failures;
    if (own != pairs_.end()) {
        own->second.failures = 0;
        own->second.allowed = 0;
        own->second.pending = std::max(own->second.pending - 1, 0);
    }
    for (const auto &[list, key] : {std::pair{&addresses_, peer}, std::pair{&accounts_, user.substr(0, name_max)}}) {
        const auto found = list->find(key);
        if (found == list->end())
            continue;
        found->second.failures = std::max(found->second.failures - failures, 0);
        found->second.pending = std::max(found->second.pending - 1, 0);
    }
}

void login_guard::given_up(const std::string &user, const std::string &peer)
{
    for (const auto &[list, key] : {std::pair{&pairs_, pair_key(user, peer)}, std::pair{&addresses_, peer},
                                    std::pair{&accounts_, user.substr(0, name_max)}}) {
        const auto found = list->find(key);
        if (found != list->end())
            found->second.pending = std::max(found->second.pending - 1, 0);
    }
}

} // namespace veld

// Slows down whoever guesses passwords: each failure makes the next attempt wait longer.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace veld
{

class login_guard
{
public:
    /// When an attempt may be looked at: a time of the loop's clock, `now` when at once.
    int64_t earliest(const std::string &user, const std::string &peer, int64_t now) const;
    /// Counts a failure at `now`; returns how many milliseconds its answer is to be held back.
    int64_t failed(const std::string &user, const std::string &peer, int64_t now);
    void succeeded(const std::string &user, const std::string &peer);

private:
    struct record {
        int failures = 0;
        int64_t allowed = 0; // the next attempt is not looked at before
        int64_t last = 0;
    };

    int64_t punish(const std::string &key, int64_t now);
    void forget_old(int64_t now);

    std::unordered_map<std::string, record> records_;
};

} // namespace veld

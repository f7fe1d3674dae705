// Slows down whoever guesses passwords: per account and per address, each alone and both together.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_map>

namespace veld
{

/// Each attempt is looked at when its time has come, a few seconds after it was made at the latest: whoever has the
/// right password gets in, whatever others do meanwhile. Failures make the times longer, and attempts that are made at
/// once wait one behind the other.
class login_guard
{
public:
    /// Takes an attempt; returns when it is to be looked at: a time of the loop's clock, `now` when at once. It counts
    /// as one of them until failed(), succeeded() or given_up() is called for it.
    int64_t admit(const std::string &user, const std::string &peer, int64_t now);
    /// The attempt was wrong; returns how many milliseconds its answer is to be held back.
    int64_t failed(const std::string &user, const std::string &peer, int64_t now);
    /// The attempt was right: the failures of this user from there are forgotten, and no others.
    void succeeded(const std::string &user, const std::string &peer);
    /// Whoever made the attempt left before it was looked at, and learns nothing of it.
    void given_up(const std::string &user, const std::string &peer);

private:
    struct record {
        int failures = 0;
        int pending = 0;     // attempts that nobody has judged yet
        int64_t allowed = 0; // the next attempt is not looked at before
        int64_t last = 0;
    };
    using records = std::unordered_map<std::string, record>;

    static int64_t delay_of(const record &one, int free);
    record &known(records *in, const std::string &key, int64_t now);

    records pairs_;     // by account and address
    records addresses_; // by address, whatever the account
    records accounts_;  // by account, whatever the address
};

} // namespace veld

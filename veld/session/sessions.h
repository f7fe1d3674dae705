// Who has joined which group, and over which link an event reaches them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace veld
{

class sessions
{
public:
    using connection_id = uint64_t;

    /// A connection joins a group as part of a session; without a session's text it is a session of its own.
    /// `receiver` makes it the connection that hears the session's events.
    void join(connection_id who, int64_t group, const std::string &session, bool receiver);
    /// The connection is gone, and its memberships with it.
    void leave(connection_id who);

    /// Calls once per session that has joined the group, with the connection that is to hear the event and all
    /// connections of the session.
    using visitor = std::function<void(connection_id hears, const std::vector<connection_id> &members)>;
    void each_in_group(int64_t group, const visitor &call) const;

    /// Whether anybody has joined a group.
    bool heard(int64_t group) const { return groups_.count(group) != 0; }

    /// The number of groups that a connection has joined.
    size_t joined(connection_id who) const;

private:
    struct session {
        std::vector<connection_id> members;
        std::vector<connection_id> receivers; // the last one hears
        std::map<int64_t, std::vector<connection_id>> groups;
    };

    std::unordered_map<std::string, session> sessions_;
    std::unordered_map<int64_t, std::unordered_set<std::string>> groups_;
    std::unordered_map<connection_id, std::unordered_set<std::string>> of_;
};

} // namespace veld

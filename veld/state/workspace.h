// The directories that the daemon stores files in.
#pragma once

#include <string>

namespace veld
{

class workspace
{
public:
    workspace() = default;
    workspace(const workspace &) = delete;
    workspace &operator=(const workspace &) = delete;
    /// Removes what was made for this run only.
    ~workspace();

    /// `state`: the state's directory, below which both then are; empty: they are made for this run only. `files`: a
    /// directory of the user's own choice for files, or empty. False on failure.
    bool open(const std::string &state, const std::string &files, std::string *error);

    /// Absolute paths.
    const std::string &spool() const { return spool_; }
    const std::string &files() const { return files_; }

private:
    std::string temporary_;
    std::string spool_;
    std::string files_;
};

} // namespace veld

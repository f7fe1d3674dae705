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

    /// `state`: the state's directory, below which both then are; empty: they are made when they are needed, for this
    /// run only. `files`: a directory of the user's own choice for files, or empty. False on failure.
    bool open(const std::string &state, const std::string &files, std::string *error);
    /// Sees to it that both directories are there. False on failure.
    bool prepare(std::string *error);

    /// Absolute paths; empty before they are made.
    const std::string &spool() const { return spool_; }
    const std::string &files() const { return files_; }

private:
    std::string base_;
    std::string temporary_;
    std::string chosen_files_;
    std::string spool_;
    std::string files_;
};

} // namespace veld

// The lines that were typed, and the file that keeps them from session to session. Main thread only.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

/// Entries, oldest first. Behind what its file held there stand those that were added here, which save() hands on.
class ve_history
{
public:
    /// Takes the entries of the file `path` (plain lines, oldest first; encoded line feeds inside an entry are decoded)
    /// and puts those that were added here and not saved behind them. From now on this is the file to save to. A
    /// missing file is an empty history. What is no plain file of this user is left alone, with one warning on standard
    /// error. Returns 0 or negative.
    int load(const char *path);
    /// Adds what was added here to the file, behind what it holds by now: nothing that other sessions saved is lost.
    /// Of more than ve_history_file_max entries the file keeps the newest. It is replaced in one step and is this
    /// user's alone. Returns 0, or negative when it is as it was; never writes what was not loaded.
    int save();
    /// Appends an entry, without the NULs in it. Duplicates are kept.
    void add(std::string_view entry);

    size_t size() const { return starts_.size(); }
    /// Entry `index`, 0 the oldest, below size(); NUL-terminated, valid until the list changes.
    std::string_view entry(size_t index) const;
    /// The entries from `first` on as a script: as they were typed, a line feed behind each.
    std::string script(size_t first) const;

private:
    void parse(std::string content);
    void warn(const char *path, const char *reason);

    std::string texts_;          // all entries, each with its NUL
    std::vector<size_t> starts_; // where each begins in texts_
    size_t saved_ = 0;           // so many entries are in the file
    std::string path_;           // empty: nothing was loaded
    bool warned_ = false;
};

constexpr size_t ve_history_file_max = 10000;

/// Writes a script: a plain file is replaced in one step, anything else written in place. Returns 0, or negative after
/// a message on standard error.
int ve_history_write_script(const char *path, std::string_view script);

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "shell/completers.h"

namespace
{

struct dir_closer {
    void operator()(DIR *directory) const { closedir(directory); }
};
using dir_ptr = std::unique_ptr<DIR, dir_closer>;

// The programs in PATH, sorted and each once. Read when the first completion of a line asks.
std::optional<std::vector<std::string>> programs;

bool is_directory(int dir_fd, const dirent *entry)
{
    if (entry->d_type != DT_UNKNOWN)
        return entry->d_type == DT_DIR;
    struct stat info;
    return fstatat(dir_fd, entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
}

/// Whether the entry may be used as `mode` (F_OK, X_OK) says. What readdir has shown exists, unless it points elsewhere
/// or the directory cannot be searched: that saves a call for each of a large directory's files.
bool qualifies(int dir_fd, const dirent *entry, int mode, bool searchable)
{
    if (mode == F_OK && entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN)
        return searchable;
    return faccessat(dir_fd, entry->d_name, mode, 0) == 0;
}

/// Calls `add` with the name of every entry that begins with `prefix`; a directory's ends in "/".
template <class Add> void list_directory(const char *path, std::string_view prefix, int mode, Add add)
{
    const dir_ptr directory(opendir(path));
    if (!directory)
        return;
    const int dir_fd = dirfd(directory.get());
    const bool searchable = faccessat(dir_fd, ".", F_OK, 0) == 0;
    while (const dirent *entry = readdir(directory.get())) {
        const std::string_view name = entry->d_name;
        if (name == "." || name == ".." || !name.starts_with(prefix))
            continue;
        if (!qualifies(dir_fd, entry, mode, searchable))
            continue;
        std::string text(name);
        if (is_directory(dir_fd, entry))
            text += '/';
        add(std::move(text));
    }
}

void collect_programs()
{
    std::vector<std::string> &names = programs.emplace();
    const char *list = getenv("PATH");
    std::string path = list != nullptr ? list : "";
    char *rest = nullptr;
    for (char *piece = strtok_r(path.data(), ":", &rest); piece != nullptr; piece = strtok_r(nullptr, ":", &rest))
        list_directory(piece, "", X_OK, [&names](std::string name) { names.push_back(std::move(name)); });
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
}

/// A name that is no text has no JSON form and is left out.
void append(json_t *candidates, const std::string &name)
{
    json_array_append_new(candidates, json_stringn(name.data(), name.size()));
}

completed_part complete_entry(std::string_view word, json_t *candidates, int mode)
{
    const size_t slash = word.rfind('/');
    const size_t begin = slash != std::string_view::npos ? slash + 1 : 0;
    const std::string directory(begin > 0 ? word.substr(0, begin) : ".");
    list_directory(directory.c_str(), word.substr(begin), mode,
                   [candidates](const std::string &name) { append(candidates, name); });
    return {begin, true};
}

} // namespace

completed_part complete_file(std::string_view word, json_t *candidates)
{
    return complete_entry(word, candidates, F_OK);
}

completed_part complete_program(std::string_view word, json_t *candidates)
{
    if (word.find('/') != std::string_view::npos)
        return complete_entry(word, candidates, X_OK);
    if (!programs)
        collect_programs();
    for (auto name = std::lower_bound(programs->begin(), programs->end(), word);
         name != programs->end() && name->starts_with(word); ++name)
        append(candidates, *name);
    return {0, true};
}

void complete_program_forget()
{
    programs.reset();
}

// What can stand at a place in the line: data-model paths and values, files and programs.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <string_view>

/// What a completer found out about the word that it completed.
struct completed_part {
    size_t begin; ///< byte of the word at which the part begins that a candidate replaces
    bool sort;    ///< the candidates are shown in byte order, else in the order in which they were found
};

/// Appends the paths, or after "=" the values, that begin with `text` (null: no word begun). May ask the daemon.
completed_part complete_path(const char *text, json_t *candidates, bool objects_only);

/// Appends the directory entries that begin with `word`.
completed_part complete_file(std::string_view word, json_t *candidates);
/// Appends the programs in PATH that begin with `word`; with a "/" in it, the executables there.
completed_part complete_program(std::string_view word, json_t *candidates);
/// Forgets the programs, so that the next completion looks into PATH again.
void complete_program_forget();

// What a completion puts into the line: pure functions of the line and the candidates.
//
// A candidate goes into the line so that reading its words (ve_words.h) gives back exactly the candidate. Inside quotes
// that the user opened it stays inside them, and they stay open. Outside, one with blanks is put between double quotes,
// one without has its quotes, backslashes and "#" escaped. Nothing is added behind it.
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// The last word of `line` as it was typed, quotes included; blanks inside quotes end no word.
std::string_view rl_last_word(std::string_view line);

/// Replaces line[start, cursor).
struct rl_replacement {
    bool changes = false;
    std::string text;
};

/// How `candidates` change the line: one is inserted, several insert what they have in common when that is more than
/// what was typed; nothing is inserted that holds a line feed. `verbatim`: without quoting.
rl_replacement rl_merge(std::string_view line, size_t start, size_t cursor,
                        const std::vector<std::string_view> &candidates, bool verbatim);

/// The longest beginning that all of them share, in whole characters.
std::string_view rl_common_beginning(const std::vector<std::string_view> &candidates);

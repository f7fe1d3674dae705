// Where the word that ends a line stands in the line's bytes: quotes and escapes are not part of the word.
#pragma once

#include <string_view>
#include <vector>

/// The last word of a text as str_split sees it. Not begun (no bytes) behind a blank.
struct word_place {
    std::vector<size_t> bytes; ///< for each byte of the word, where it (or the backslash before it) stands in the text
    size_t end;                ///< length of the text
    bool comment;              ///< the text ends inside a comment

    /// Where the part of the word from byte `offset` on begins in the text.
    size_t at(size_t offset) const { return offset < bytes.size() ? bytes[offset] : end; }
};

word_place find_last_word(std::string_view text);

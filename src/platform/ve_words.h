// The grammar of command lines: blanks part words, quotes group, a backslash escapes quotes, itself and "#", and "#"
// begins a comment.
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <vector>

/// A line as far as it is read: what stands open at its end is what a cursor there stands in.
struct ve_words {
    std::vector<std::string> words; ///< without their quotes and escapes; none is empty, each may hold any byte
    size_t size = 0;                ///< bytes read
    size_t index = 0;               ///< of the current word, in which the end stands; of the next when none is begun
    std::vector<size_t> places;     ///< of the current word's bytes in the line, or of the backslashes that escape them
    char quote = 0;                 ///< open at the end
    bool escaped = false; ///< a backslash at the end waits for what it escapes; until then it is part of the word
    bool comment = false; ///< the end stands in a comment

    /// Empty when none is begun.
    std::string_view current() const { return index < words.size() ? words[index] : std::string_view(); }
    /// Where the part of the current word from byte `offset` on begins in the line.
    size_t place(size_t offset) const { return offset < places.size() ? places[offset] : size; }
    /// The part of the current word that stands at byte `place` of the line and behind.
    std::string_view current_from(size_t place) const;
};

ve_words ve_words_read(std::string_view line);
/// False when the line goes on in the next one: at its end a quote is open or a backslash waits. Comments are not known
/// here: their quotes count.
bool ve_words_complete(std::string_view line);

/// Whether all of them are texts.
bool ve_words_are_utf8(std::span<const std::string> words);

/// `text` as it has to be written where `quote` (0 for none) is open, to be read back as it is. Where none is open, a
/// text with blanks opens one, and closes it again if `whole`.
std::string ve_words_quote(std::string_view text, char quote, bool whole);

/// White space between words, whatever the locale.
constexpr bool ve_words_is_blank(char c)
{
    return c == ' ' || (c >= '\t' && c <= '\r');
}

// The text of a line (UTF-8, places in it in bytes), the cursor in it, and how its changes are taken back. Pure: no
// terminal, no history.
#pragma once

#include <string>
#include <string_view>
#include <vector>

class rl_buffer
{
public:
    const std::string &text() const { return text_; }
    size_t cursor() const { return cursor_; }
    bool at_end() const { return cursor_ == text_.size(); }

    /// Another text, the cursor at its end, nothing to take back.
    void assign(std::string text);
    /// Moves the cursor.
    void place(size_t cursor);
    /// Puts `with` in the place of [first, last) and the cursor behind it: one step back.
    void replace(size_t first, size_t last, std::string_view with);
    /// Inserts a typed or pasted character; those of a word, or of a paste, are taken back together.
    void type(std::string_view character, bool pasted);
    /// Takes the last change back. False when there is none.
    bool undo();

private:
    struct change {
        size_t at;           ///< where the text was changed
        size_t inserted;     ///< bytes that were put there
        std::string removed; ///< what they took the place of
        size_t cursor;       ///< before it
    };

    std::string text_;
    size_t cursor_ = 0;
    std::vector<change> changes_;
    bool typing_ = false; // the last change goes on with the next typed character
};

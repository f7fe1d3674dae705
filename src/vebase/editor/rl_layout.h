// From a line to what the terminal must be sent: a pure function of the text, the cursor and the screen's size.
#pragma once

#include <string>
#include <string_view>
#include <vector>

/// A stretch of text in one colour.
struct rl_piece {
    std::string_view text;
    std::string_view color; ///< the escape sequence that begins it; empty for none
};

/// One row of the screen.
struct rl_row {
    std::string bytes;
    int width = 0;     ///< cells in use
    bool full = false; ///< all of them
    bool hard = false; ///< the next row does not come about by the terminal's own wrapping
};

struct rl_layout {
    std::vector<rl_row> rows; ///< at least one
    size_t cursor_row = 0;
    int cursor_column = 0;
};

/// Lays the pieces out on rows of `width` cells (2 or more). The cursor stands before byte `cursor` of piece
/// `cursor_piece`, or at its end. Line feeds begin a new row, tabs go to the next eighth column, a wide character that
/// does not fit leaves a blank, and so does one with combining marks in the last column. A last row that is full is
/// followed by an empty one, where the terminal's cursor is.
rl_layout rl_lay_out(const std::vector<rl_piece> &pieces, size_t cursor_piece, size_t cursor, int width);

/// What is on the screen after painting.
struct rl_painted {
    size_t top = 0;    ///< the layout's row that is on the first row of ours
    size_t cursor = 0; ///< rows of ours above the cursor
};

/// Bytes that show `layout`, when `painted` says what is there now; at most `height` rows, among them the cursor's.
/// `painted` is brought up to date.
std::string rl_paint(const rl_layout &layout, size_t height, rl_painted &painted);
/// Bytes that take everything of ours off the screen and leave the cursor at the beginning of the first row.
std::string rl_erase(const rl_painted &painted);

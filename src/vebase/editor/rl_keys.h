// From the bytes that a terminal sends to what they ask the editor to do.
#pragma once

#include <string>
#include <vector>

#include "vebase/editor/rl_text.h"

/// What a key does (docs/line-editor.md).
enum class rl_op {
    none,
    insert, ///< a typed character
    paste,  ///< a pasted one
    enter,
    left,
    right,
    word_left,
    word_right,
    start,
    end,
    rub,         ///< the character before the cursor
    remove,      ///< the one under it
    end_of_file, ///< on an empty line; otherwise remove
    cut_end,
    cut_start,
    cut_blank_word, ///< back to the last blank
    cut_word_left,
    cut_word_right,
    yank,
    yank_older, ///< instead of what was just inserted, what was cut before it
    undo,
    swap,
    upper,
    lower,
    capital,
    last_word, ///< of the entry before; again: of the one before that
    older,
    newer,
    search_back,
    search_forward,
    cancel,
    escape, ///< alone, or with a key that means nothing
    complete,
    clear
};

struct rl_key {
    rl_op op = rl_op::none;
    wchar_t c = 0; ///< of insert and paste
};

class rl_key_decoder
{
public:
    void feed(unsigned char byte);
    /// Takes the next key, if there is one.
    bool take(rl_key *key);
    /// The next byte is text, whatever it is: behind Ctrl-V, or inside a paste.
    bool wants_text() const { return state_ == state::literal || pasting(); }
    /// The beginning of a paste has come, but not its end.
    bool pasting() const { return state_ == state::paste; }
    /// The end never came.
    void end_paste();
    /// An ESC alone has come, which may be a key or begin a sequence.
    bool holds_escape() const { return state_ == state::escape; }
    /// It was the key.
    void release_escape();
    /// Forgets what is incomplete; a paste goes on.
    void reset();

private:
    enum class state { ground, literal, escape, csi, csi_bracket, ss3, paste };

    void put_text(unsigned char byte, rl_op op);
    void put_pasted(unsigned char byte);
    void put_sequence();
    void release_matched();

    state state_ = state::ground;
    std::string sequence_;   // from the ESC on
    size_t end_matched_ = 0; // bytes of a paste's end that have come
    rl_utf8_decoder text_;
    std::vector<rl_key> ready_;
    size_t taken_ = 0;
};

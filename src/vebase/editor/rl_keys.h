// From the bytes that a terminal sends to what they ask the editor to do (docs/line-editor.md).
#pragma once

#include <string>
#include <string_view>
#include <vector>

class rl_line;
enum class rl_done;
/// What a key does to the line.
using rl_op = rl_done (rl_line::*)();

/// What a key is: a character of text, or an operation.
struct rl_key {
    rl_op op = nullptr;
    std::string text = {}; ///< without an operation: the character; empty for a key that means nothing
    bool pasted = false;   ///< the character
};

class rl_key_decoder
{
public:
    static constexpr std::string_view paste_end = "\033[201~";

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
    enum class state { ground, literal, escape, sequence, paste };

    void put_text(unsigned char byte);
    void put_character();
    void put_pasted(unsigned char byte);
    void put_sequence();
    void release_matched();

    state state_ = state::ground;
    std::string sequence_;   // from the ESC on
    size_t end_matched_ = 0; // bytes of a paste's end that have come
    std::string text_;       // an incomplete character
    std::vector<rl_key> ready_;
    size_t taken_ = 0;
};

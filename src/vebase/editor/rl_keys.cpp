#include "vebase/editor/rl_keys.h"

#include <cctype>
#include <string>
#include <string_view>

#include "base/utf8.h"
#include "vebase/editor/rl_line.h"

namespace
{

constexpr size_t sequence_max = 32;
constexpr std::string_view paste_begin = "\033[200~";

struct binding {
    rl_op op;
    std::string_view keys; ///< each as the bytes that terminals send for it, with blanks between
};

constexpr binding bindings[] = {
    {&rl_line::enter, "\n \r \033OM"},
    {&rl_line::complete, "\t"},
    {&rl_line::clear, "\x0c"},
    {&rl_line::cancel, "\x07"},
    {&rl_line::left, "\x02 \033[D \033OD"},
    {&rl_line::right, "\x06 \033[C \033OC"},
    {&rl_line::to_word_left, "\033b \033[1;5D \033[5D \033[1;3D \033Od"},
    {&rl_line::to_word_right, "\033f \033[1;5C \033[5C \033[1;3C \033Oc"},
    {&rl_line::to_start, "\x01 \033[H \033OH \033[1~ \033[7~"},
    {&rl_line::to_end, "\x05 \033[F \033OF \033[4~ \033[8~"},
    {&rl_line::rub, "\x7f \b"},
    {&rl_line::remove, "\033[3~"},
    {&rl_line::remove_or_end, "\x04"},
    {&rl_line::cut_end, "\x0b"},
    {&rl_line::cut_start, "\x15"},
    {&rl_line::cut_blank_word, "\x17"},
    {&rl_line::cut_word_left, "\033\x7f \033\b"},
    {&rl_line::cut_word_right, "\033d \033[3;5~"},
    {&rl_line::yank, "\x19"},
    {&rl_line::yank_older, "\033y"},
    {&rl_line::undo, "\x1f"},
    {&rl_line::swap, "\x14"},
    {&rl_line::upper, "\033u"},
    {&rl_line::lower, "\033l"},
    {&rl_line::capital, "\033c"},
    {&rl_line::last_word, "\033."},
    {&rl_line::older, "\x10 \033[A \033OA"},
    {&rl_line::newer, "\x0e \033[B \033OB"},
    {&rl_line::search_back, "\x12"},
    {&rl_line::search_forward, "\x13"},
};

/// The operation of a key, null for one that means nothing.
rl_op find_op(const std::string &key)
{
    for (const binding &each : bindings)
        if ((' ' + std::string{each.keys} + ' ').find(' ' + key + ' ') != std::string::npos)
            return each.op;
    return nullptr;
}

bool is_control(unsigned char byte)
{
    return byte < 0x20 || byte == 0x7f;
}

bool begins_literal(unsigned char byte)
{
    return byte == 0x16 || byte == 0x11; // Ctrl-V, Ctrl-Q
}

} // namespace

void rl_key_decoder::put_text(unsigned char byte)
{
    text_.push_back(static_cast<char>(byte));
    while (!text_.empty() && !utf8_first(text_).unfinished)
        put_character();
}

/// A line cannot hold a NUL.
void rl_key_decoder::put_character()
{
    const size_t size = utf8_first(text_).size;
    if (text_[0] != '\0')
        ready_.push_back({.text = text_.substr(0, size), .pasted = pasting()});
    text_.erase(0, size);
}

void rl_key_decoder::put_pasted(unsigned char byte)
{
    if (byte == '\r' || byte == '\n')
        ready_.push_back({.op = &rl_line::enter});
    else
        put_text(byte);
}

void rl_key_decoder::put_sequence()
{
    state_ = sequence_ == paste_begin ? state::paste : state::ground;
    if (!pasting())
        ready_.push_back({.op = find_op(sequence_)});
}

void rl_key_decoder::feed(unsigned char byte)
{
    switch (state_) {
    case state::ground:
        if (is_control(byte))
            reset(); // what is incomplete is text
        if (byte == 0x1b) {
            sequence_.assign(1, static_cast<char>(byte));
            state_ = state::escape;
        } else if (begins_literal(byte)) {
            state_ = state::literal;
        } else if (is_control(byte)) {
            sequence_.assign(1, static_cast<char>(byte));
            put_sequence();
        } else {
            put_text(byte);
        }
        break;
    case state::literal:
        put_text(byte);
        if (text_.empty())
            state_ = state::ground;
        break;
    case state::escape:
        if (byte == 0x1b) {
            ready_.emplace_back();
        } else if (byte == '[' || byte == 'O') {
            sequence_.push_back(static_cast<char>(byte));
            state_ = state::sequence;
        } else {
            sequence_.push_back(static_cast<char>(tolower(byte)));
            put_sequence();
            if (byte >= 0x80)
                feed(byte);
        }
        break;
    case state::sequence:
        if (is_control(byte)) {
            reset();
            feed(byte);
            break;
        }
        if (sequence_.size() < sequence_max)
            sequence_.push_back(static_cast<char>(byte));
        // "\033[[" and a letter is a function key of the Linux console.
        if (byte >= 0x40 && sequence_ != "\033[[")
            put_sequence();
        break;
    case state::paste:
        if (byte == static_cast<unsigned char>(paste_end[end_matched_])) {
            if (++end_matched_ < paste_end.size())
                break;
            end_matched_ = 0;
            end_paste();
            break;
        }
        release_matched();
        if (byte == 0x1b)
            end_matched_ = 1;
        else
            put_pasted(byte);
        break;
    }
}

/// What looked like the end of a paste is text.
void rl_key_decoder::release_matched()
{
    for (size_t i = 0; i < end_matched_; ++i)
        put_pasted(static_cast<unsigned char>(paste_end[i]));
    end_matched_ = 0;
}

bool rl_key_decoder::take(rl_key *key)
{
    if (taken_ == ready_.size()) {
        ready_.clear();
        taken_ = 0;
        return false;
    }
    *key = ready_[taken_++];
    return true;
}

void rl_key_decoder::end_paste()
{
    release_matched();
    state_ = state::ground;
    reset();
}

void rl_key_decoder::release_escape()
{
    state_ = state::ground;
    ready_.emplace_back();
}

void rl_key_decoder::reset()
{
    if (!pasting())
        state_ = state::ground;
    while (!text_.empty())
        put_character();
}

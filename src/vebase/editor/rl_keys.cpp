#include "vebase/editor/rl_keys.h"

#include <cctype>
#include <string_view>

namespace
{

constexpr size_t sequence_max = 32;
constexpr std::string_view paste_begin = "\033[200~";
constexpr std::string_view paste_end = "\033[201~";
constexpr wchar_t bad_byte_base = 0xdc00; // as rl_widen has it

struct binding {
    std::string_view bytes;
    rl_op op;
};

constexpr binding bindings[] = {
    {"\x01", rl_op::start},
    {"\x02", rl_op::left},
    {"\x04", rl_op::end_of_file},
    {"\x05", rl_op::end},
    {"\x06", rl_op::right},
    {"\x07", rl_op::cancel},
    {"\b", rl_op::rub},
    {"\t", rl_op::complete},
    {"\n", rl_op::enter},
    {"\x0b", rl_op::cut_end},
    {"\x0c", rl_op::clear},
    {"\r", rl_op::enter},
    {"\x0e", rl_op::newer},
    {"\x10", rl_op::older},
    {"\x12", rl_op::search_back},
    {"\x13", rl_op::search_forward},
    {"\x14", rl_op::swap},
    {"\x15", rl_op::cut_start},
    {"\x17", rl_op::cut_blank_word},
    {"\x19", rl_op::yank},
    {"\x1f", rl_op::undo},
    {"\x7f", rl_op::rub},
    // Alt
    {"\033b", rl_op::word_left},
    {"\033f", rl_op::word_right},
    {"\033d", rl_op::cut_word_right},
    {"\033\x7f", rl_op::cut_word_left},
    {"\033\b", rl_op::cut_word_left},
    {"\033y", rl_op::yank_older},
    {"\033.", rl_op::last_word},
    {"\033u", rl_op::upper},
    {"\033l", rl_op::lower},
    {"\033c", rl_op::capital},
    // The keys beside the letters, as several kinds of terminal send them
    {"\033[A", rl_op::older},
    {"\033OA", rl_op::older},
    {"\033[B", rl_op::newer},
    {"\033OB", rl_op::newer},
    {"\033[C", rl_op::right},
    {"\033OC", rl_op::right},
    {"\033[D", rl_op::left},
    {"\033OD", rl_op::left},
    {"\033[H", rl_op::start},
    {"\033OH", rl_op::start},
    {"\033[1~", rl_op::start},
    {"\033[7~", rl_op::start},
    {"\033[F", rl_op::end},
    {"\033OF", rl_op::end},
    {"\033[4~", rl_op::end},
    {"\033[8~", rl_op::end},
    {"\033[3~", rl_op::remove},
    {"\033[3;5~", rl_op::cut_word_right},
    {"\033[1;5C", rl_op::word_right},
    {"\033[5C", rl_op::word_right},
    {"\033[1;3C", rl_op::word_right},
    {"\033Oc", rl_op::word_right},
    {"\033[1;5D", rl_op::word_left},
    {"\033[5D", rl_op::word_left},
    {"\033[1;3D", rl_op::word_left},
    {"\033Od", rl_op::word_left},
    {"\033OM", rl_op::enter},
};

rl_op find_op(std::string_view bytes)
{
    for (const binding &each : bindings)
        if (each.bytes == bytes)
            return each.op;
    return rl_op::none;
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

void rl_key_decoder::put_text(unsigned char byte, rl_op op)
{
    std::wstring decoded;
    text_.feed(byte, decoded);
    for (const wchar_t c : decoded) {
        if (c >= 0x80 && c < 0xa0) {
            // A control character of eight bits is shown as its bytes, which no terminal takes for it.
            ready_.push_back({op, bad_byte_base + 0xc2});
            ready_.push_back({op, bad_byte_base + c});
        } else if (c != 0) {
            ready_.push_back({op, c});
        }
    }
}

void rl_key_decoder::put_pasted(unsigned char byte)
{
    if (byte == '\r' || byte == '\n')
        ready_.push_back({rl_op::enter});
    else
        put_text(byte, rl_op::paste);
}

void rl_key_decoder::put_sequence()
{
    state_ = sequence_ == paste_begin ? state::paste : state::ground;
    const rl_op op = find_op(sequence_);
    if (op != rl_op::none)
        ready_.push_back({op});
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
            put_text(byte, rl_op::insert);
        }
        break;
    case state::literal:
        put_text(byte, rl_op::insert);
        if (!text_.pending())
            state_ = state::ground;
        break;
    case state::escape:
        if (byte == 0x1b) {
            ready_.push_back({rl_op::escape});
        } else if (byte == '[' || byte == 'O') {
            sequence_.push_back(static_cast<char>(byte));
            state_ = byte == '[' ? state::csi : state::ss3;
        } else {
            sequence_.push_back(static_cast<char>(tolower(byte)));
            const bool bound = find_op(sequence_) != rl_op::none;
            if (!bound)
                ready_.push_back({rl_op::escape});
            put_sequence();
            if (byte >= 0x80)
                feed(byte);
        }
        break;
    case state::csi:
    case state::ss3:
        if (is_control(byte)) {
            reset();
            feed(byte);
            break;
        }
        if (sequence_.size() < sequence_max)
            sequence_.push_back(static_cast<char>(byte));
        if (sequence_ == "\033[[")
            state_ = state::csi_bracket;
        else if (byte >= 0x40 && (byte < 0x7f || state_ == state::csi))
            put_sequence();
        break;
    case state::csi_bracket:
        // A function key of the Linux console.
        state_ = state::ground;
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
    ready_.push_back({rl_op::escape});
}

void rl_key_decoder::reset()
{
    if (!pasting())
        state_ = state::ground;
    std::wstring incomplete;
    text_.flush(incomplete);
    for (const wchar_t c : incomplete)
        ready_.push_back({rl_op::insert, c});
}

#include "vebase/editor/rl_keys.h"

#include <iterator>

namespace
{

constexpr size_t sequence_max = 32;

} // namespace

const rl_key_binding rl_key_bindings[] = {
    {L"[A", L"kest-older"},      {L"OA", L"kest-older"},      {L"[B", L"kest-newer"},
    {L"OB", L"kest-newer"},      {L"[C", L"kest-forward"},    {L"OC", L"kest-forward"},
    {L"[D", L"ed-prev-char"},    {L"OD", L"ed-prev-char"},    {L"[H", L"ed-move-to-beg"},
    {L"OH", L"ed-move-to-beg"},  {L"[1~", L"ed-move-to-beg"}, {L"[7~", L"ed-move-to-beg"},
    {L"[F", L"kest-end"},        {L"OF", L"kest-end"},        {L"[4~", L"kest-end"},
    {L"[8~", L"kest-end"},       {L"[3~", L"kest-delete"},    {L"[3;5~", L"em-delete-next-word"},
    {L"[1;5C", L"em-next-word"}, {L"[5C", L"em-next-word"},   {L"[1;3C", L"em-next-word"},
    {L"Oc", L"em-next-word"},    {L"[1;5D", L"ed-prev-word"}, {L"[5D", L"ed-prev-word"},
    {L"[1;3D", L"ed-prev-word"}, {L"Od", L"ed-prev-word"},    {L"OM", L"ed-newline"},
};
const size_t rl_key_binding_count = std::size(rl_key_bindings);

void rl_key_decoder::ground(unsigned char byte)
{
    const size_t before = ready_.size();
    text_.feed(byte, ready_);
    // The library takes U+0080 to U+009f for keys typed with Meta; here they are text like other bad bytes.
    if (ready_.size() > before && ready_.back() >= 0x80 && ready_.back() < 0xa0) {
        const auto low = ready_.back();
        ready_.pop_back();
        put(0xdc00 + 0xc2);
        put(0xdc00 + low);
    }
}

void rl_key_decoder::sequence_ends(bool searching)
{
    state_ = state::ground;
    for (size_t i = 0; i < rl_key_binding_count; ++i) {
        if (sequence_ != rl_key_bindings[i].sequence)
            continue;
        if (searching)
            put_key(L'\033');
        put_key(L'\033');
        for (const wchar_t c : sequence_)
            put_key(c);
        return;
    }
}

void rl_key_decoder::feed(unsigned char byte, bool searching)
{
    switch (state_) {
    case state::ground:
        if (byte == 0x1b) {
            text_.flush(ready_);
            state_ = state::escape;
        } else {
            ground(byte);
        }
        break;
    case state::escape:
        sequence_.assign(1, byte);
        if (byte == '[') {
            state_ = state::csi;
        } else if (byte == 'O') {
            state_ = state::ss3;
        } else {
            if (byte < 0x80 || searching)
                put_key(L'\033');
            if (byte == 0x1b)
                break;
            state_ = state::ground;
            if (byte < 0x80 && !searching)
                put_key(byte);
            else
                ground(byte);
        }
        break;
    case state::csi:
    case state::ss3:
        if (byte < 0x20 || byte == 0x7f) {
            reset();
            feed(byte, searching);
            break;
        }
        if (sequence_.size() < sequence_max)
            sequence_.push_back(byte);
        if (state_ == state::csi && byte == '[' && sequence_.size() == 2)
            state_ = state::csi_bracket;
        else if (byte >= 0x40 && (byte < 0x7f || state_ == state::csi))
            sequence_ends(searching);
        break;
    case state::csi_bracket:
        // A function key of the Linux console.
        state_ = state::ground;
        break;
    }
}

bool rl_key_decoder::take(wchar_t *c, bool *is_text)
{
    if (taken_ == ready_.size()) {
        ready_.clear();
        taken_ = 0;
        return false;
    }
    const wchar_t next = ready_[taken_++];
    *c = next & ~key_mark;
    *is_text = *c == next && *c >= 0x20 && *c != 0x7f;
    return true;
}

void rl_key_decoder::release_escape()
{
    state_ = state::ground;
    put_key(L'\033');
}

void rl_key_decoder::reset()
{
    state_ = state::ground;
    sequence_.clear();
    text_.flush(ready_);
}

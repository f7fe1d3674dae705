// From the bytes that a terminal sends to the characters and key sequences that the editing library knows.
#pragma once

#include <string>

#include "vebase/editor/rl_text.h"

/// Key sequences that are bound, without their leading ESC; everything else that begins like one is swallowed.
struct rl_key_binding {
    const wchar_t *sequence;
    const wchar_t *command; ///< of the editing library or of ours
};
extern const rl_key_binding rl_key_bindings[];
extern const size_t rl_key_binding_count;

class rl_key_decoder
{
public:
    /// Takes a byte. `searching`: a key sequence first has to end a search, which an ESC does.
    void feed(unsigned char byte, bool searching);
    /// Takes a byte that is text, whatever it is.
    void feed_text(unsigned char byte) { ground(byte); }
    /// Takes the next character, if there is one. `is_text` says whether it is to be inserted rather than a key or a
    /// part of one.
    bool take(wchar_t *c, bool *is_text);
    /// An ESC alone has come, which may be a key or begin a sequence.
    bool holds_escape() const { return state_ == state::escape; }
    /// It was the key.
    void release_escape();
    /// Forgets what is incomplete.
    void reset();

private:
    enum class state { ground, escape, csi, csi_bracket, ss3 };
    static constexpr wchar_t key_mark = 0x40000000; // on the characters of key sequences

    void put(wchar_t c) { ready_.push_back(c); }
    void put_key(wchar_t c) { ready_.push_back(c | key_mark); }
    void ground(unsigned char byte);
    void sequence_ends(bool searching);

    state state_ = state::ground;
    std::wstring sequence_; // behind the ESC
    std::wstring ready_;
    size_t taken_ = 0;
    rl_utf8_decoder text_;
};

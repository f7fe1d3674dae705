// The state of the editor that its pieces share: rl_edit.cpp runs reads, rl_input.cpp fetches keys, rl_tab.cpp
// completes and hints. One object, main thread only.
#pragma once

#include <histedit.h>
#include <string>
#include <termios.h>
#include <unistd.h>

#include "platform/ve_wait.h"
#include "vebase/editor/rl_control.h"
#include "vebase/editor/rl_edit.h"
#include "vebase/editor/rl_keys.h"
#include "vebase/editor/rl_screen.h"

class rl_session final : ve_wait_companion
{
public:
    /// Opens the editing library once. False when the terminal cannot be edited on.
    bool open();
    rl_outcome read_line(const char *prompt, int64_t deadline, std::string &line, int *signal);

    /// The next character for the library; false when the read ends.
    bool next_character(wchar_t *c);

    // Commands bound to keys; the results are the library's CC_ codes.
    unsigned char complete();
    unsigned char forward();
    unsigned char end_of_line();
    unsigned char clear_screen();
    unsigned char quoted_insert();
    unsigned char yank();
    unsigned char older();
    unsigned char newer();
    unsigned char delete_next();

    /// Async-signal-safe.
    void restore_modes() const { tcsetattr(STDIN_FILENO, TCSANOW, &original_); }
    /// The library looked at entry `index` of the history.
    void note_walk(size_t index)
    {
        walked_ = true;
        walked_to_ = index;
    }

private:
    enum class callback { none, complete, hint };

    // rl_edit.cpp
    void begin_terminal();
    int end_terminal();
    void suspend();
    std::wstring_view text() const;
    size_t cursor() const;
    bool searching() const;
    void follow_history();
    void remember_line();
    bool pass_searched(wchar_t c);
    void rebind_key();
    void ensure_capacity(bool starting);
    void replace_line(const std::wstring &text, size_t cursor);
    void draw(std::wstring_view message = {});
    void bell() const;

    // rl_input.cpp
    void serve_outside();
    void wait_hidden();
    void forget_input();
    bool take_byte();
    void handle_byte(unsigned char byte);
    void wait_for_input(int64_t until);
    bool deliver(wchar_t *c);
    void prepare_key(wchar_t *c);
    unsigned watch(pollfd *fds) override;
    bool serve(const pollfd *fds, unsigned count) override;
    void collect_typed();

    // rl_tab.cpp
    json_t *candidates(const std::string &line, size_t cursor_byte);
    template <class Call> bool run_callback(callback kind, const Call &call);
    bool insert_candidate(const json_t *found, const std::string &line, size_t cursor_byte);
    void list(const json_t *found);
    bool confirm(const std::string &question);
    bool pause_listing();
    void refresh_hint();
    void find_hint();
    bool accept_hint();

    EditLine *el_ = nullptr;
    termios original_{};
    struct sigaction before_abort_ {
    };
    bool prepared_ = false;
    rl_screen screen_;
    rl_signals signals_;
    rl_key_decoder keys_;
    rl_outcome outcome_ = rl_outcome::none;
    int signal_ = 0;
    int64_t deadline_ = -1;

    std::string typed_; // bytes that were read while a callback ran
    size_t typed_used_ = 0;
    int pending_ = 0;              // bytes that the terminal is known to hold
    bool readable_ = false;        // the terminal is known to be readable
    bool literal_ = false;         // the next character is text, whatever it is
    bool first_ = false;           // nothing was handed to the library in this read
    unsigned long served_ = 0;     // characters handed to the library
    std::wstring carry_;           // text of a read that timed out
    size_t capacity_ = 0;          // characters that the library's line has room for
    bool walked_ = false;          // the library looked at the history since the last character
    size_t walked_to_ = 0;         // the last entry that it looked at
    bool in_history_ = false;      // the line stands at an entry of the history
    std::wstring long_line_;       // the line outside the history, when it is long
    bool inserted_ = false;        // text went into the line since the last key
    wchar_t held_ = 0;             // a key to be handed out next
    wchar_t rebound_ = -1;         // the key that is text for one character of a search
    bool asked_to_search_ = false; // a search may be under way
    bool went_newer_ = false;      // the last command may have left the history

    callback running_ = callback::none;
    bool abandoned_ = false;       // the callback that runs was abandoned
    unsigned long tab_served_ = 0; // served_ at the last Tab
    std::wstring hint_;            // behind hint_text_
    std::wstring hint_text_;       // the line that hint_ and hint_known_ are about
    bool hint_known_ = false;
};

extern rl_session rl_editor;

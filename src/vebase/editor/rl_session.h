// The state of the editor that its pieces share: rl_edit.cpp runs reads, rl_input.cpp fetches keys, rl_tab.cpp
// completes and hints. One object, main thread only.
#pragma once

#include <string>

#include "base/json_ref.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_ahead.h"
#include "vebase/editor/rl_control.h"
#include "vebase/editor/rl_edit.h"
#include "vebase/editor/rl_keys.h"
#include "vebase/editor/rl_line.h"
#include "vebase/editor/rl_modes.h"
#include "vebase/editor/rl_screen.h"

class rl_session final : ve_wait_companion
{
public:
    rl_outcome read_line(const char *prompt, int64_t deadline, std::string &line, int *signal);
    size_t take_paste_end(char *data, size_t size);
    rl_ahead &ahead() { return ahead_; }
    void drop_ahead();
    /// The same for a Ctrl-C that is known to the whole program by now, unless it was found ahead itself: what is there
    /// then was typed behind it.
    void drop_ahead_of_interrupt();

private:
    enum class callback { none, complete, hint };

    // rl_edit.cpp
    void edit();
    void pause();
    void handle(const rl_key &key);
    void begin_terminal();
    int end_terminal();
    void suspend();
    void draw(std::string_view message = {});
    void clear_screen();

    // rl_input.cpp
    void serve_outside();
    void interrupt_typed();
    void wait_hidden();
    void forget_input();
    bool fetch_byte(unsigned char *byte);
    bool take_byte();
    void handle_byte(unsigned char byte);
    bool take_ahead();
    bool look_ahead();
    void wait_for_input(int64_t until);
    unsigned watch(pollfd *fds) override;
    bool serve(const pollfd *fds, unsigned count) override;

    // rl_tab.cpp
    json_ref candidates(const std::string &line, size_t cursor_byte);
    template <class Call> bool run_callback(callback kind, const Call &call);
    bool insert_candidate(const json_t *found, const std::string &line);
    void complete();
    void list(const json_t *found);
    bool confirm(const std::string &question);
    bool pause_listing();
    void forget_hint();
    void refresh_hint();
    void find_hint();
    bool accept_hint();

    rl_modes modes_;
    rl_screen screen_;
    rl_signals signals_;
    rl_key_decoder keys_;
    rl_line line_;
    rl_outcome outcome_ = rl_outcome::none;
    int signal_ = 0;
    int64_t deadline_ = -1;
    bool keep_text_ = false; // the read before timed out

    rl_ahead ahead_;              // typed before its turn
    rl_key_decoder ahead_keys_;   // behind what is ahead
    bool ahead_is_newer_ = false; // than the Ctrl-C that look_ahead() found
    int pending_ = 0;             // bytes that the terminal is known to hold
    bool readable_ = false;       // the terminal is known to be readable

    callback running_ = callback::none;
    bool abandoned_ = false; // the callback that runs was abandoned
    std::string hint_;       // behind hint_text_
    std::string hint_text_;  // the line that hint_ and hint_known_ are about
    bool hint_known_ = false;
};

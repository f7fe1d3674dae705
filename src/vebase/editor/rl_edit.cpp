#include "vebase/editor/rl_edit.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "platform/ve_out.h"
#include "vebase/editor/rl_session.h"
#include "vebase/editor/rl_text.h"

rl_session rl_editor;

namespace
{

// The library lets a search pattern of this size grow behind the line without looking at the line's room.
constexpr size_t search_room = 1024 + 64;
// Of a line that it leaves for the history the library remembers so many characters.
constexpr size_t remembered_max = 1024;

/// The list of typed lines as the library walks it: its first is the newest.
int walk_history(void *, HistEventW *event, int operation, ...)
{
    static size_t at = 0;
    static std::wstring entry;
    const size_t count = rl_set.history->size();
    size_t next = count;
    switch (operation) {
    case H_FIRST:
        next = count - 1;
        break;
    case H_NEXT:
        next = at - 1;
        break;
    case H_PREV:
        next = at + 1;
        break;
    case H_CURR:
        next = at;
        break;
    case H_LAST:
        next = 0;
        break;
    default:
        break;
    }
    if (next >= count) {
        event->str = nullptr;
        return -1;
    }
    at = next;
    rl_editor.note_walk(at);
    entry = rl_widen(rl_set.history->entry(at));
    // The library takes one line feed and one blank off an entry's end.
    if (entry.ends_with(L'\n') || entry.ends_with(L' '))
        entry.push_back(entry.back());
    event->num = static_cast<int>(at) + 1;
    event->str = entry.c_str();
    return 0;
}

int read_character(EditLine *, wchar_t *c)
{
    return rl_editor.next_character(c) ? 1 : -1;
}

template <unsigned char (rl_session::*Command)()> unsigned char command(EditLine *, wint_t)
{
    return (rl_editor.*Command)();
}

/// A failed assertion in a callback: what it says is to be read on a terminal that works.
void restore_terminal(int)
{
    rl_editor.restore_modes();
}

wchar_t *no_prompt(EditLine *)
{
    static wchar_t nothing[] = L"";
    return nothing;
}

void add_commands(EditLine *el)
{
    const auto add = [el](const wchar_t *name, const wchar_t *help, unsigned char (*function)(EditLine *, wint_t)) {
        el_wset(el, EL_ADDFN, name, help, function);
    };
    add(L"kest-complete", L"Complete the word", command<&rl_session::complete>);
    add(L"kest-forward", L"Accept the hint or go forward", command<&rl_session::forward>);
    add(L"kest-end", L"Accept the hint or go to the end", command<&rl_session::end_of_line>);
    add(L"kest-clear", L"Clear the screen", command<&rl_session::clear_screen>);
    add(L"kest-quote", L"Insert the next character", command<&rl_session::quoted_insert>);
    add(L"kest-delete", L"Delete the next character", command<&rl_session::delete_next>);
    add(L"kest-older", L"Go to the next older line", command<&rl_session::older>);
    add(L"kest-newer", L"Go to the next newer line", command<&rl_session::newer>);
    add(L"kest-yank", L"Insert what was cut", command<&rl_session::yank>);
}

// What the control characters do; null for the one that begins sequences.
constexpr const wchar_t *control_commands[0x20] = {
    L"em-set-mark",         // ^@
    L"ed-move-to-beg",      // ^A
    L"ed-prev-char",        // ^B
    L"ed-unassigned",       // ^C never comes here
    L"em-delete-or-list",   // ^D
    L"kest-end",            // ^E
    L"kest-forward",        // ^F
    L"ed-unassigned",       // ^G
    L"em-delete-prev-char", // ^H
    L"kest-complete",       // ^I
    L"ed-newline",          // ^J
    L"ed-kill-line",        // ^K
    L"kest-clear",          // ^L
    L"ed-newline",          // ^M
    L"kest-newer",          // ^N
    L"ed-ignore",           // ^O
    L"kest-older",          // ^P
    L"kest-quote",          // ^Q
    L"em-inc-search-prev",  // ^R
    L"em-inc-search-next",  // ^S
    L"ed-transpose-chars",  // ^T
    L"vi-kill-line-prev",   // ^U
    L"kest-quote",          // ^V
    L"ed-delete-prev-word", // ^W
    L"ed-unassigned",       // ^X
    L"kest-yank",           // ^Y
    L"ed-ignore",           // ^Z never comes here
    nullptr,                // ^[
    L"ed-ignore",           // ^\\ never comes here
    L"ed-ignore",           // ^]
    L"ed-unassigned",       // ^^
    L"ed-unassigned",       // ^_
};

void bind_character(EditLine *el, wchar_t c, const wchar_t *name)
{
    const wchar_t itself[] = {c, 0};
    el_wset(el, EL_BIND, c == 0 ? L"^@" : itself, name, static_cast<const wchar_t *>(nullptr));
}

void bind_keys(EditLine *el)
{
    const auto bind = [el](const wchar_t *key, const wchar_t *name) {
        el_wset(el, EL_BIND, key, name, static_cast<const wchar_t *>(nullptr));
    };
    for (wchar_t c = 0; c < 0x20; ++c)
        if (control_commands[c] != nullptr)
            bind_character(el, c, control_commands[c]);
    // No key sends these: they are the lower bytes of characters in a search.
    for (wchar_t c = 0x80; c < 0xa0; ++c)
        bind_character(el, c, L"ed-insert");
    // The library's own command line would show its prompt on its own screen.
    bind(L"\\033x", L"ed-unassigned");
    bind(L"\\033X", L"ed-unassigned");
    // Text is inserted without the library, which could not repeat it.
    for (wchar_t digit = L'0'; digit <= L'9'; ++digit)
        bind((std::wstring{L"\\033"} + digit).c_str(), L"ed-unassigned");
    for (size_t i = 0; i < rl_key_binding_count; ++i) {
        const std::wstring key = std::wstring{L"\\033"} + rl_key_bindings[i].sequence;
        bind(key.c_str(), rl_key_bindings[i].command);
    }
    // What our commands fall back to, under keys that nobody can type.
    bind(L"\\033\\036f", L"ed-next-char");
    bind(L"\\033\\036e", L"ed-move-to-end");
    bind(L"\\033\\036y", L"em-yank");
    bind(L"\\033\\036n", L"ed-next-history");
    bind(L"\\033\\036p", L"ed-prev-history");
    bind(L"\\033\\036d", L"em-delete-or-list");
}

} // namespace

bool rl_edit_possible()
{
    return rl_editor.open();
}

rl_outcome rl_edit_line(const char *prompt, int64_t deadline, std::string &line, int *signal)
{
    return rl_editor.read_line(prompt, deadline, line, signal);
}

bool rl_session::open()
{
    if (isatty(STDIN_FILENO) == 0 || !ve_out_is_terminal())
        return false;
    if (el_ != nullptr)
        return true;
    // The library refuses to edit there.
    const char *term = getenv("TERM");
    if (term != nullptr && strcmp(term, "emacs") == 0)
        return false;
    rl_set_locale();
    termios now;
    if (tcgetattr(STDIN_FILENO, &now) < 0)
        return false;
    // What the library draws goes nowhere; the screen is ours.
    FILE *nowhere = fopen("/dev/null", "we");
    if (nowhere == nullptr)
        return false;
    el_ = el_init_fd("kest", stdin, nowhere, nowhere, STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO);
    tcsetattr(STDIN_FILENO, TCSANOW, &now);
    if (el_ == nullptr) {
        fclose(nowhere);
        return false;
    }
    el_wset(el_, EL_PROMPT, no_prompt);
    el_wset(el_, EL_SIGNAL, 0);
    el_wset(el_, EL_EDITOR, L"emacs");
    el_wset(el_, EL_HIST, walk_history, this);
    el_wset(el_, EL_GETCFN, read_character);
    // Ctrl-C, Ctrl-Z and Ctrl-\ are keys, in order with the others; Ctrl-S and Ctrl-Q too.
    el_wset(el_, EL_SETTY, L"-d", L"-isig", L"-ixon", L"-ixoff", static_cast<const wchar_t *>(nullptr));
    add_commands(el_);
    bind_keys(el_);
    return true;
}

std::wstring_view rl_session::text() const
{
    const LineInfoW *info = el_wline(el_);
    return {info->buffer, static_cast<size_t>(info->lastchar - info->buffer)};
}

size_t rl_session::cursor() const
{
    const LineInfoW *info = el_wline(el_);
    return static_cast<size_t>(info->cursor - info->buffer);
}

/// While the library searches, it keeps what it asks behind the line.
bool rl_session::searching() const
{
    if (!asked_to_search_)
        return false;
    const std::wstring_view all = text();
    const size_t feed = all.rfind(L'\n');
    if (feed == std::wstring_view::npos || all.size() < feed + 5)
        return false;
    const std::wstring_view word = all.substr(feed + 1, 3);
    return (word == L"bck" || word == L"fwd") && (all[feed + 4] == L':' || all[feed + 4] == L'?');
}

/// Puts `text` into the library's place of the line. Never empty; what was cut before stays to be inserted.
void rl_session::replace_line(const std::wstring &text, size_t cursor)
{
    if (el_wreplacestr(el_, text.c_str()) == 0)
        el_cursor(el_, static_cast<int>(cursor) - el_cursor(el_, 0));
}

/// Finds out whether the line stands at an entry of the history, which the library does not say, and puts right what
/// the library forgets of a long line that it comes back to.
void rl_session::follow_history()
{
    if (walked_)
        in_history_ = text() == rl_widen(rl_set.history->entry(walked_to_));
    else if (went_newer_)
        in_history_ = false;
    if ((walked_ || went_newer_) && !in_history_ && !long_line_.empty() && text() != long_line_)
        replace_line(long_line_, long_line_.size());
    walked_ = false;
    went_newer_ = false;
}

/// Before a key that may leave the line for the history.
void rl_session::remember_line()
{
    if (in_history_ || searching())
        return;
    if (text().size() >= remembered_max)
        long_line_ = text();
    else
        long_line_.clear();
}

/// Makes room before it is needed: some of the library's commands do not make it, or keep pointers into what they had.
/// `starting`: between two reads, when the line is nobody's.
void rl_session::ensure_capacity(bool starting)
{
    const size_t length = starting ? 0 : text().size();
    // An entry of the history may take the line's place; what was cut is at most as long as the room was.
    const size_t needed = std::max({2 * length, length + search_room, rl_set.history->longest() + search_room});
    if (needed <= capacity_ || (length == 0 && !starting))
        return;
    const size_t room = std::max(needed, size_t{4096}) * 2;
    const std::wstring now{starting ? std::wstring_view{} : text()};
    const size_t place = cursor();
    if (el_wreplacestr(el_, std::wstring(room, L'x').c_str()) < 0)
        return;
    capacity_ = room;
    if (!starting)
        replace_line(now, place);
}

void rl_session::draw(std::wstring_view message)
{
    const std::wstring_view all = text();
    const bool at_end = cursor() == all.size();
    screen_.draw(
        {.text = all,
         .cursor = cursor(),
         .hint = at_end && message.empty() && hint_text_ == all ? std::wstring_view{hint_} : std::wstring_view{},
         .message = message});
}

/// While it searches, the library looks only at a character's lower byte to tell text from keys. False when it cannot
/// be made to take `c` for text.
bool rl_session::pass_searched(wchar_t c)
{
    const wchar_t low = c & 0xff;
    if (c < 0x100 || (low >= 0x20 && low != 0x7f))
        return true;
    if (low != 0x7f && control_commands[low] == nullptr)
        return false;
    bind_character(el_, low, L"ed-insert");
    rebound_ = low;
    return true;
}

/// Gives the key that pass_searched took back its meaning.
void rl_session::rebind_key()
{
    if (rebound_ >= 0)
        bind_character(el_, rebound_, rebound_ == 0x7f ? L"em-delete-prev-char" : control_commands[rebound_]);
    rebound_ = -1;
}

void rl_session::bell() const
{
    ve_out_draw("\a", 1);
}

void rl_session::begin_terminal()
{
    tcgetattr(STDIN_FILENO, &original_);
    struct sigaction abandon = {};
    abandon.sa_handler = restore_terminal;
    abandon.sa_flags = static_cast<int>(SA_RESETHAND);
    sigaction(SIGABRT, &abandon, &before_abort_);
    signals_.install();
    rl_control_begin();
    prepared_ = true;
}

int rl_session::end_terminal()
{
    if (!prepared_)
        return 0;
    el_wset(el_, EL_PREP_TERM, 0);
    tcsetattr(STDIN_FILENO, TCSANOW, &original_);
    const int late = signals_.restore();
    sigaction(SIGABRT, &before_abort_, nullptr);
    rl_control_end();
    prepared_ = false;
    return late;
}

void rl_session::suspend()
{
    screen_.finish(text(), {}, true);
    el_wset(el_, EL_PREP_TERM, 0);
    tcsetattr(STDIN_FILENO, TCSANOW, &original_);
    signals_.restore();
    rl_raise(SIGTSTP);
    // Here the program runs again. Others may have read the terminal meanwhile.
    forget_input();
    tcgetattr(STDIN_FILENO, &original_);
    signals_.install();
    el_wset(el_, EL_PREP_TERM, 1);
    screen_.resized();
    screen_.forget();
}

rl_outcome rl_session::read_line(const char *prompt, int64_t deadline, std::string &line, int *signal)
{
    *signal = 0;
    deadline_ = deadline;
    // Ctrl-C may have emptied the terminal's input since the last read.
    forget_input();
    begin_terminal();
    for (;;) {
        outcome_ = rl_outcome::none;
        first_ = true;
        keys_.reset();
        hint_.clear();
        hint_text_.clear();
        hint_known_ = false;
        tab_served_ = 0;
        walked_ = false;
        in_history_ = false;
        long_line_.clear();
        asked_to_search_ = false;
        inserted_ = false;
        held_ = 0;
        ensure_capacity(true);
        screen_.begin(prompt != nullptr ? prompt : "", rl_set.prompt_color, rl_set.hint_color);
        int count = 0;
        const wchar_t *typed = el_wgets(el_, &count);
        if (outcome_ == rl_outcome::none)
            outcome_ = typed != nullptr && count > 0 ? rl_outcome::line : rl_outcome::end;
        const std::wstring_view all =
            outcome_ == rl_outcome::line ? std::wstring_view{typed, static_cast<size_t>(count)} : text();
        if (outcome_ != rl_outcome::interrupt || !signals_.is_default(SIGINT)) {
            break;
        }
        screen_.finish(all, L"^C", true);
    }
    std::wstring all{text()};
    switch (outcome_) {
    case rl_outcome::line:
        // The library ends the line with the line feed that ended the read.
        if (!all.empty() && all.back() == L'\n')
            all.pop_back();
        screen_.finish(all, {}, true);
        line = rl_narrow(all);
        break;
    case rl_outcome::interrupt:
        screen_.finish(all, L"^C", false);
        break;
    case rl_outcome::end:
    case rl_outcome::signal:
        screen_.finish(all, {}, true);
        break;
    case rl_outcome::timeout:
        carry_ = std::move(all);
        screen_.leave();
        break;
    case rl_outcome::stop:
    case rl_outcome::none:
        screen_.leave();
        break;
    }
    *signal = signal_;
    signal_ = 0;
    const int late = end_terminal();
    if (*signal == 0)
        *signal = late;
    return outcome_;
}

unsigned char rl_session::clear_screen()
{
    constexpr char clear[] = "\033[H\033[2J";
    ve_out_draw(clear, sizeof clear - 1);
    screen_.forget();
    return CC_NORM;
}

unsigned char rl_session::quoted_insert()
{
    literal_ = true;
    wchar_t c = 0;
    const int count = el_wgetc(el_, &c);
    literal_ = false;
    if (count != 1)
        return CC_EOF;
    if (c == 0)
        return CC_ERROR;
    const wchar_t inserted[] = {c, 0};
    return el_winsertstr(el_, inserted) == 0 ? CC_REFRESH : CC_ERROR;
}

unsigned char rl_session::yank()
{
    ensure_capacity(false);
    el_wpush(el_, L"\033\036y");
    return CC_ARGHACK;
}

/// Above the oldest entry the library would take back what was changed in it.
unsigned char rl_session::older()
{
    if (rl_set.history->size() == 0 || (in_history_ && walked_to_ == 0)) {
        bell();
        return CC_NORM;
    }
    el_wpush(el_, L"\033\036p");
    return CC_ARGHACK;
}

/// The library's own command for that key cuts the character, in the place of what was cut before.
unsigned char rl_session::delete_next()
{
    if (cursor() == text().size()) {
        bell();
        return CC_NORM;
    }
    el_wpush(el_, L"\033\036d");
    return CC_ARGHACK;
}

/// Below the newest entry the library would take the line for what it was before the history was looked at.
unsigned char rl_session::newer()
{
    if (!in_history_) {
        bell();
        return CC_NORM;
    }
    walked_ = false;
    went_newer_ = true;
    el_wpush(el_, L"\033\036n");
    return CC_ARGHACK;
}

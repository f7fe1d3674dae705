// The line editor: reading lines with editing, history, completion and hints on a terminal, plain lines elsewhere; and
// the small displays that go with it. Main thread only, but for ve_rl_write_control_char and
// ve_rl_draw_circle_progress.
#pragma once

#include <string_view>

#include <jansson.h>

#include "platform/ve_colors.h"
#include "platform/ve_history.h"

/// What the thread that prints events asks of the editor.
enum ve_rl_control : unsigned {
    ve_rl_hide = 0x10000, ///< take the prompt and the typed text off the screen
    ve_rl_show = 0x10001, ///< show them again
    ve_rl_stop = 0x10002  ///< end the current read, or the next one
};

/// Reads one line without its line feed; the caller frees it. Null at the end of input, after Ctrl-D on an empty line
/// and after ve_rl_stop. `timeout_ms` -1 waits without limit; otherwise null after that time without a line (what was
/// typed so far begins the next one). What was printed so far is flushed first. With input or output that is no
/// terminal: plain lines, no prompt, no echo; a NUL in one becomes \xc0\x80, which is not UTF-8. A terminal that knows
/// no escape sequences (TERM) shows the prompt and edits lines itself. Ctrl-C at the prompt drops the line and begins
/// it anew; while SIGINT has a handler, the terminal is brought back and the signal raised, and null returned when that
/// noted it (ve_wait_note_interrupt). A wait point.
char *ve_rl(const char *prompt, int timeout_ms);
/// True when the last ve_rl ended by Ctrl-D or the end of input.
bool ve_rl_ctrld_is_pressed();
/// errno of the read that ended the input; 0 where none failed. It is the end for every later ve_rl, too: what a reader
/// behind it would find may be the rest of somebody else's line.
int ve_rl_input_error();

/// What was typed ahead at the prompt, as far as the terminal does not hold it any more. Takes its next byte; false
/// when there is none, and the terminal is to be read.
bool ve_rl_take_ahead(char *byte);
/// Drops what of it was typed before the Ctrl-C that has come.
void ve_rl_drop_ahead();
/// Puts it back into the terminal, where another program will read it.
void ve_rl_put_back_ahead();

/// Fills `candidates` (the editor's array) for the word at byte `cursor` of `line`.
using ve_rl_autocomplete_cb = void (*)(const char *line, size_t cursor, json_t *candidates);
/// A newly allocated text to show behind the cursor, or null.
using ve_rl_hint_cb = char *(*)(const char *line);
/// Install the callbacks; null removes them. They return what was installed before.
ve_rl_autocomplete_cb ve_rl_set_autocomplete_cb(ve_rl_autocomplete_cb callback);
ve_rl_hint_cb ve_rl_set_hint_cb(ve_rl_hint_cb callback);
/// The history that the keys of the editor walk and search (borrowed; null for none).
void ve_rl_set_history(const ve_history *history);
/// Called inside a completion callback: byte offset in the line of the typed part that a candidate replaces. Without
/// it, the part begins after the last blank before the cursor.
void ve_rl_set_completion_start(size_t offset);
/// Called inside a completion callback: the candidates go into the line as they are. Without it they are quoted and
/// escaped so that the word splitter reads back each of them as it is.
void ve_rl_set_completion_verbatim();
/// The offset set by the completion callback that ran last, for a hint callback that calls it.
size_t ve_rl_completion_start();

void ve_rl_set_colors(const hsv_color &prompt, const hsv_color &hint, const hsv_color &autocomplete);

/// The descriptor from which the editor reads control codes (borrowed; -1 for none).
void ve_rl_set_control_fd(int fd);
/// Writes a control code to the write end of the control pipe. Any thread. Never blocks on a full pipe. ve_rl_hide
/// returns when the editor has taken its line off the screen, at once when no read is under way, and after a bounded
/// time anyway.
void ve_rl_write_control_char(int fd, unsigned code);

/// Prints an array of names in columns of the terminal's width; one a line when the output is no terminal.
void ve_rl_show_list(const json_t *names);

/// Columns that ve_visible(text) takes on a terminal, for texts without line feeds and tabs.
size_t ve_rl_width(std::string_view text);
/// Draws or redraws `label`, a percentage (clamped to 0 to 100) and a bar in the terminal's width. On an output that is
/// no terminal: one line each ten percent. A bar at 100 stays; the caller ends its line.
void ve_rl_draw_progressbar(int percent, const char *label);
/// Draws the next picture of the spinner behind `text`, in place. Any thread (it writes directly). Nothing on an output
/// that is no terminal.
void ve_rl_draw_circle_progress(const char *text);

/// Terminal echo on descriptor `fd`. Return 0, negative when it is no terminal. Echo comes back by itself when a signal
/// ends the program or Ctrl-C leaves the command. `question` (borrowed until then) is what whoever types answers: it is
/// written again when the program was stopped meanwhile.
int ve_rl_echo_off(int fd, const char *question = "");
int ve_rl_echo_on(int fd);

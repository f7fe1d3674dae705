// The main thread's standard output: one buffer, flushed when a command ends or the buffer is full. Flushing waits for
// a slow reader at a wait point (ve_wait.h), so a long listing can be stopped with Ctrl-C. Main thread only; other
// threads write their text whole with ve_out_direct.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

/// printf into the buffer.
void ve_printf(const char *format, ...) __attribute__((format(printf, 1, 2)));
/// `text` and a line feed.
void ve_puts(const char *text);
/// Dropped while Ctrl-C is noted (ve_wait_interrupted), as what the functions above print is.
void ve_out_write(const char *data, size_t size);
/// The same for `text` as ve_visible() has it, its characters in `kept` as they are, however long it is: not all of it
/// is held at a time. Returns as ve_out_relieve() does. A wait point.
int ve_out_visible(std::string_view text, std::string_view kept = {});
/// Writes out what is buffered. Returns 0, or -1 when the output is gone or Ctrl-C came (what was buffered is then
/// dropped). A wait point.
int ve_out_flush();
/// Flushes when much is buffered: called once a row by what prints long lists, which ends when it returns -1 (nobody
/// will see more). Else it returns 0. A wait point.
[[nodiscard]] int ve_out_relieve();
/// The error that the first failed write to the output met; 0 when there was none. Nothing is written behind it. Any
/// thread.
int ve_out_error();
/// The same error met by who writes to the output by another way.
void ve_out_fail(int error);
/// What the program is to end with: `status`, or a failure when the output could not be written, which standard error
/// is told. Once, at the end.
int ve_out_end_status(int status);
/// When Ctrl-C ends a command: drops what is buffered, but for the rest of a line whose beginning was written.
void ve_out_land();
/// True when descriptor 1 is a terminal. Asked once; ve_out_reopened() says that the descriptor was replaced.
bool ve_out_is_terminal();
void ve_out_reopened();

/// True when the last byte written to the output was not a line feed, so that the cursor stands behind some text.
bool ve_out_mid_line();

/// The text of the unfinished row: what was written since the last line feed, of which the end is kept. Any thread.
std::string ve_out_unfinished_row();
/// For who draws on the terminal himself. ve_out_draw writes like ve_out_direct, but the unfinished row stays what it
/// was; ve_out_row_ended says that the cursor stands at the beginning of a row. Any thread.
void ve_out_draw(const char *data, size_t size);
void ve_out_row_ended();
/// One write to standard error, as write(2), between two pieces of the output, whose row it belongs to on a terminal.
/// Any thread.
ssize_t ve_out_write_error(const char *data, size_t size);
/// Bytes that were written or noted so far, but for what was drawn. Any thread.
size_t ve_out_count();
/// Another program wrote to the terminal, or what is typed was echoed: nobody knows whether the
/// cursor stands at the beginning of a row. The next prompt makes sure that it does. ve_out_take_row_unknown is true
/// once after it. Main thread only.
void ve_out_row_unknown();
bool ve_out_take_row_unknown();

/// Any thread: writes `data` to descriptor 1 at once and whole, between two flushed pieces of the buffered output.
void ve_out_direct(const char *data, size_t size);
/// The same for what `write` gives to `put` piece by piece; that returns false when nobody takes any more.
void ve_out_direct_pieces(const std::function<void(const std::function<bool(std::string_view)> &put)> &write);
/// The same for whole lines: they begin a row of their own, whatever stands unfinished on the current one.
void ve_out_direct_rows(const char *data, size_t size);
/// From now on both leave what nobody reads. Any thread.
void ve_out_give_up();

/// `text` as it is safe to show on the output: on a terminal with visible escapes (base/visible.h) for what would steer
/// it, hide, or turn the text around; elsewhere as it is.
std::string ve_visible(std::string_view text);
/// The same for a text of several lines: its line feeds and tabs stay.
std::string ve_visible_lines(std::string_view text);
/// Of what goes to standard error.
std::string ve_visible_error(std::string_view text);

#include "base/utf8.h"
#include "base/visible.h"
#include "platform/ve_out.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <new>
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "platform/ve_wait.h"
#include "vebase/escapes.h"

namespace
{

constexpr size_t flush_size = size_t{64} << 10;
// A pipe that polls writable takes this much without blocking.
constexpr size_t piece_size = 4096;
// How often who waits for a reader looks whether the reader was given up.
constexpr int look_ms = 100;
constexpr size_t unfinished_size = 4096;

/// Whether a row holds more than escape sequences and control characters.
bool shows_something(std::string_view row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        const auto byte = static_cast<unsigned char>(row[i]);
        if (byte == '\033')
            i += escape_size(row.substr(i)) - 1;
        else if (byte > 0x20 && byte != 0x7f)
            return true;
    }
    return false;
}

/// What the program writes to descriptor 1, and the row that the cursor is left in. The buffer is the main thread's;
/// the descriptor and the row are everybody's, behind the lock.
class terminal_output
{
public:
    // The buffer: main thread only.
    void append(const char *data, size_t size)
    {
        if (!is_closed())
            buffer_.append(data, size);
    }
    void format(const char *format, va_list args);
    int flush();
    int relieve() { return buffer_.size() >= flush_size ? flush() : ve_wait_interrupted() ? -1 : 0; }
    void land();
    bool mid_line();
    bool is_terminal()
    {
        if (terminal_ < 0)
            terminal_ = isatty(STDOUT_FILENO);
        return terminal_ == 1;
    }
    void reopened();

    // The descriptor and the row: any thread.
    enum class row { written, drawn, whole };
    /// Writes `data` whole: text that becomes part of the row, a drawing that leaves the row what it was, or whole
    /// rows.
    void write_now(std::string_view data, row how);
    void write_pieces(const std::function<void(const std::function<bool(std::string_view)> &)> &write);
    /// Text that reached the same terminal by another way.
    ssize_t write_error(std::string_view data);
    size_t count();
    std::string unfinished_row();
    void end_row();
    void give_up() { given_up_ = true; }
    int error() const { return error_; }
    void fail(int error)
    {
        int none = 0;
        error_.compare_exchange_strong(none, error);
    }

private:
    /// What is printed now is lost: the reader is gone, or Ctrl-C has ended what prints.
    bool is_closed() const { return error_ != 0 || ve_wait_interrupted(); }
    void drop()
    {
        buffer_.clear();
        written_ = 0;
    }
    std::string_view piece() const;
    ssize_t write_piece(std::string_view data);
    int descriptor();
    bool write_whole(std::string_view data);
    void note(std::string_view data);

    std::string buffer_; // not yet written
    size_t written_ = 0; // bytes of the buffer that are out already
    int terminal_ = -1;  // isatty(1), or -1 when not yet asked

    std::atomic<bool> given_up_{false}; // a reader that lets one wait
    std::atomic<int> error_{0};         // why the output takes no more

    std::mutex lock_;        // never held across a wait point
    std::string unfinished_; // the end of what was written since the last line feed
    size_t count_ = 0;       // bytes written or noted
    bool own_tried_ = false;
    int own_fd_ = -1; // the terminal, opened once more
};

void terminal_output::format(const char *format, va_list args)
{
    if (is_closed())
        return;
    char text[1024];
    va_list again;
    va_copy(again, args);
    const int size = vsnprintf(text, sizeof text, format, args);
    if (size >= 0 && static_cast<size_t>(size) < sizeof text) {
        buffer_.append(text, static_cast<size_t>(size));
    } else if (size >= 0) {
        const size_t before = buffer_.size();
        buffer_.resize(before + static_cast<size_t>(size) + 1);
        vsnprintf(buffer_.data() + before, static_cast<size_t>(size) + 1, format, again);
        buffer_.resize(before + static_cast<size_t>(size));
    }
    va_end(again);
}

/// What to write next: ends with a line where it can, so that another thread's text falls between lines.
std::string_view terminal_output::piece() const
{
    const auto rest = std::string_view(buffer_).substr(written_);
    const size_t feed = rest.size() > piece_size ? rest.rfind('\n', piece_size - 1) : std::string_view::npos;
    return rest.substr(0, feed != std::string_view::npos ? feed + 1 : piece_size);
}

int terminal_output::flush()
{
    while (written_ < buffer_.size()) {
        // A reader that keeps up never lets the wait below begin, which is where Ctrl-C is delivered.
        if (written_ > 0)
            ve_wait_checkpoint();
        pollfd out{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        if (ve_wait_poll(&out, 1, -1) < 0) {
            land();
            return -1;
        }
        const ssize_t count = write_piece(piece());
        if (count >= 0) {
            written_ += static_cast<size_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            fail(errno);
            drop();
            return -1;
        }
    }
    drop();
    return ve_wait_interrupted() ? -1 : 0;
}

void terminal_output::land()
{
    const size_t feed =
        written_ > 0 && buffer_[written_ - 1] != '\n' ? buffer_.find('\n', written_) : std::string::npos;
    pollfd out{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
    // A terminal that was stopped stays stopped: the line is then given up.
    if (feed != std::string::npos && poll(&out, 1, 20) > 0)
        write_piece(std::string_view(buffer_).substr(written_, feed + 1 - written_));
    drop();
}

bool terminal_output::mid_line()
{
    if (!buffer_.empty())
        return buffer_.back() != '\n';
    const std::scoped_lock lock(lock_);
    return !unfinished_.empty();
}

void terminal_output::reopened()
{
    const std::scoped_lock lock(lock_);
    if (own_fd_ >= 0)
        close(own_fd_);
    own_fd_ = -1;
    own_tried_ = false;
    terminal_ = -1;
    unfinished_.clear(); // that row is elsewhere
}

void terminal_output::write_now(std::string_view data, row how)
{
    const std::scoped_lock lock(lock_);
    if (how == row::whole && shows_something(unfinished_) && write_whole("\n"))
        note("\n");
    if (write_whole(data) && how != row::drawn)
        note(data);
}

void terminal_output::write_pieces(const std::function<void(const std::function<bool(std::string_view)> &)> &write)
{
    const std::scoped_lock lock(lock_);
    write([this](std::string_view piece) {
        if (!write_whole(piece))
            return false;
        note(piece);
        return true;
    });
}

ssize_t terminal_output::write_error(std::string_view data)
{
    const std::scoped_lock lock(lock_);
    const ssize_t count = write(STDERR_FILENO, data.data(), data.size());
    if (count > 0 && isatty(STDERR_FILENO) != 0)
        note(data.substr(0, static_cast<size_t>(count)));
    return count;
}

size_t terminal_output::count()
{
    const std::scoped_lock lock(lock_);
    return count_;
}

std::string terminal_output::unfinished_row()
{
    const std::scoped_lock lock(lock_);
    return unfinished_;
}

void terminal_output::end_row()
{
    const std::scoped_lock lock(lock_);
    unfinished_.clear();
}

/// One write, at a time when nobody else writes. As write(2).
ssize_t terminal_output::write_piece(std::string_view data)
{
    const std::scoped_lock lock(lock_);
    const ssize_t count = write(descriptor(), data.data(), data.size());
    if (count > 0)
        note(data.substr(0, static_cast<size_t>(count)));
    return count;
}

/// The descriptor to write to. With the lock held. A terminal that polls writable still blocks a write until it has
/// taken all of it. Only a descriptor of our own can be made non-blocking: the flag of the inherited one is
/// everybody's.
int terminal_output::descriptor()
{
    if (!own_tried_) {
        own_tried_ = true;
        if (isatty(STDOUT_FILENO) != 0)
            own_fd_ = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    return own_fd_ >= 0 ? own_fd_ : STDOUT_FILENO;
}

/// With the lock held. False when the output is gone or its reader was given up.
bool terminal_output::write_whole(std::string_view data)
{
    while (!data.empty()) {
        pollfd out{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        const int ready = poll(&out, 1, look_ms);
        if (ready == 0 || (ready < 0 && errno == EINTR)) { // what is full blocks behind a signal, too
            if (given_up_)
                return false;
            continue;
        }
        const ssize_t count = write(descriptor(), data.data(), std::min(data.size(), piece_size));
        if (count < 0 && errno != EAGAIN && errno != EINTR) {
            fail(errno);
            return false;
        }
        data.remove_prefix(count > 0 ? static_cast<size_t>(count) : 0);
    }
    return true;
}

/// The row after `data` was written. With the lock held.
void terminal_output::note(std::string_view data)
{
    count_ += data.size();
    const size_t feed = data.rfind('\n');
    if (feed != std::string_view::npos)
        unfinished_.assign(data.substr(feed + 1));
    else
        unfinished_.append(data);
    if (unfinished_.size() > 2 * unfinished_size)
        unfinished_.erase(0, unfinished_.size() - unfinished_size);
}

// Never destroyed: a thread may still write while the program exits.
alignas(terminal_output) char output_place[sizeof(terminal_output)];
terminal_output &output = *new (output_place) terminal_output;
bool row_unknown = false; // another program wrote to the terminal; main thread only

} // namespace

void ve_out_write(const char *data, size_t size)
{
    output.append(data, size);
}

int ve_out_visible(std::string_view text, std::string_view kept)
{
    constexpr size_t part_size = size_t{16} << 10;
    while (!text.empty()) {
        const std::string_view part = text.substr(0, utf8_cut(text, part_size));
        text.remove_prefix(part.size());
        const std::string shown = ve_out_is_terminal() ? visible(part, kept) : std::string(part);
        ve_out_write(shown.data(), shown.size());
        if (ve_out_relieve() < 0)
            return -1;
    }
    return 0;
}

int ve_out_relieve()
{
    return output.relieve();
}

void ve_puts(const char *text)
{
    output.append(text, strlen(text));
    output.append("\n", 1);
}

void ve_printf(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    output.format(format, args);
    va_end(args);
}

int ve_out_flush()
{
    return output.flush();
}

int ve_out_error()
{
    return output.error();
}

void ve_out_fail(int error)
{
    output.fail(error);
}

int ve_out_end_status(int status)
{
    const int error = output.error();
    if (error == 0)
        return status;
    const std::string text = std::string("kest: the output cannot be written: ") + strerror(error) + '\n';
    ve_out_write_error(text.data(), text.size());
    return (status & 0xff) != 0 ? status : EXIT_FAILURE;
}

void ve_out_land()
{
    output.land();
}

bool ve_out_is_terminal()
{
    return output.is_terminal();
}

void ve_out_reopened()
{
    output.reopened();
}

bool ve_out_mid_line()
{
    return output.mid_line();
}

void ve_out_direct(const char *data, size_t size)
{
    output.write_now({data, size}, terminal_output::row::written);
}

void ve_out_direct_pieces(const std::function<void(const std::function<bool(std::string_view)> &put)> &write)
{
    output.write_pieces(write);
}

void ve_out_direct_rows(const char *data, size_t size)
{
    output.write_now({data, size}, terminal_output::row::whole);
}

void ve_out_give_up()
{
    output.give_up();
}

std::string ve_out_unfinished_row()
{
    return output.unfinished_row();
}

void ve_out_draw(const char *data, size_t size)
{
    output.write_now({data, size}, terminal_output::row::drawn);
}

ssize_t ve_out_write_error(const char *data, size_t size)
{
    return output.write_error({data, size});
}

size_t ve_out_count()
{
    return output.count();
}

void ve_out_row_unknown()
{
    row_unknown = true;
    output.end_row();
}

bool ve_out_take_row_unknown()
{
    return std::exchange(row_unknown, false);
}

void ve_out_row_ended()
{
    output.end_row();
}

std::string ve_visible(std::string_view text)
{
    return ve_out_is_terminal() ? visible(text) : std::string(text);
}

std::string ve_visible_error(std::string_view text)
{
    return isatty(STDERR_FILENO) != 0 ? visible(text) : std::string(text);
}

std::string ve_visible_lines(std::string_view text)
{
    return ve_out_is_terminal() ? visible(text, "\t\n") : std::string(text);
}

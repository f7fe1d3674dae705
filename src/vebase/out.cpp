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
#include <string>
#include <string_view>
#include <unistd.h>
#include <utility>

#include "platform/ve_wait.h"

namespace
{

constexpr size_t flush_size = size_t{64} << 10;
// A pipe that polls writable takes this much without blocking.
constexpr size_t piece_size = 4096;

std::string buffer;                // not yet written
size_t written = 0;                // bytes of the buffer that are out already
std::atomic<bool> mid_line{false}; // the last byte written was no line feed
bool gone = false;                 // the reader went away
int terminal = -1;                 // isatty(1), or -1 when not yet asked
bool row_unknown = false;          // another program wrote to the terminal
constexpr size_t unfinished_size = 4096;
// The end of what was written since the last line feed; behind write_lock. Never destroyed: a thread may still write
// while the program exits.
std::string &unfinished = *new std::string;
// Keeps a piece of the buffer and a direct text apart. Never held across a wait point.
std::mutex write_lock;
bool own_tried = false; // behind write_lock
int own_fd = -1;        // behind write_lock: the terminal, opened once more

/// The descriptor to write to. With write_lock held. A terminal that polls writable still blocks a write until it has
/// taken all of it. Only a descriptor of our own can be made non-blocking: the flag of the inherited one is
/// everybody's.
int output_fd()
{
    if (!own_tried) {
        own_tried = true;
        if (isatty(STDOUT_FILENO) != 0)
            own_fd = open("/proc/self/fd/1", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    }
    return own_fd >= 0 ? own_fd : STDOUT_FILENO;
}

/// Notes that `data` was written. With write_lock held.
void note_written(const char *data, size_t size)
{
    mid_line = data[size - 1] != '\n';
    const void *feed = memrchr(data, '\n', size);
    if (feed != nullptr) {
        const char *rest = static_cast<const char *>(feed) + 1;
        unfinished.assign(rest, static_cast<size_t>(data + size - rest));
    } else {
        unfinished.append(data, size);
    }
    if (unfinished.size() > 2 * unfinished_size)
        unfinished.erase(0, unfinished.size() - unfinished_size);
}

/// Whether a row holds more than escape sequences and control characters.
bool shows_something(std::string_view row)
{
    for (size_t i = 0; i < row.size(); ++i) {
        const auto byte = static_cast<unsigned char>(row[i]);
        if (byte == '\033' && i + 1 < row.size() && row[i + 1] == '[')
            i = std::min(row.find_first_not_of("0123456789;?", i + 2), row.size());
        else if (byte > 0x20 && byte != 0x7f)
            return true;
    }
    return false;
}

/// Writes `data` to the output whole. With write_lock held. False when the output is gone.
bool write_whole(const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t count = write(output_fd(), data, size);
        if (count < 0 && errno == EINTR)
            continue;
        if (count < 0 && errno == EAGAIN) {
            pollfd out{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
            poll(&out, 1, 1000);
            continue;
        }
        if (count < 0)
            return false;
        data += count;
        size -= static_cast<size_t>(count);
    }
    return true;
}

/// One write of a piece that ends with a line where it can, so that another thread's text falls between lines.
ssize_t write_piece()
{
    const char *start = buffer.data() + written;
    size_t size = buffer.size() - written;
    if (size > piece_size) {
        const void *feed = memrchr(start, '\n', piece_size);
        size = feed != nullptr ? static_cast<size_t>(static_cast<const char *>(feed) - start) + 1 : piece_size;
    }
    const std::scoped_lock lock(write_lock);
    const ssize_t count = write(output_fd(), start, size);
    if (count > 0)
        note_written(start, static_cast<size_t>(count));
    return count;
}

void drop()
{
    buffer.clear();
    written = 0;
}

} // namespace

void ve_out_write(const char *data, size_t size)
{
    if (gone || ve_wait_interrupted())
        return;
    buffer.append(data, size);
}

void ve_out_relieve()
{
    if (buffer.size() >= flush_size)
        ve_out_flush();
}

void ve_puts(const char *text)
{
    ve_out_write(text, strlen(text));
    ve_out_write("\n", 1);
}

void ve_printf(const char *format, ...)
{
    char text[1024];
    va_list args;
    va_list again;
    va_start(args, format);
    va_copy(again, args);
    const int size = vsnprintf(text, sizeof text, format, args);
    if (size >= 0 && static_cast<size_t>(size) < sizeof text) {
        ve_out_write(text, static_cast<size_t>(size));
    } else if (size >= 0 && !gone && !ve_wait_interrupted()) {
        const size_t before = buffer.size();
        buffer.resize(before + static_cast<size_t>(size) + 1);
        vsnprintf(buffer.data() + before, static_cast<size_t>(size) + 1, format, again);
        buffer.resize(before + static_cast<size_t>(size));
    }
    va_end(again);
    va_end(args);
}

int ve_out_flush()
{
    while (written < buffer.size()) {
        // A reader that keeps up never lets the wait below begin, which is where Ctrl-C is delivered.
        if (written > 0)
            ve_wait_checkpoint();
        pollfd out{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        if (ve_wait_poll(&out, 1, -1) < 0) {
            ve_out_land();
            return -1;
        }
        const ssize_t count = write_piece();
        if (count >= 0) {
            written += static_cast<size_t>(count);
        } else if (errno != EINTR && errno != EAGAIN) {
            gone = errno == EPIPE || errno == EBADF || errno == EIO;
            drop();
            return -1;
        }
    }
    drop();
    return 0;
}

void ve_out_land()
{
    if (mid_line && written > 0) {
        const size_t feed = buffer.find('\n', written);
        pollfd out{.fd = STDOUT_FILENO, .events = POLLOUT, .revents = 0};
        // A terminal that was stopped stays stopped: the line is then given up.
        if (feed != std::string::npos && poll(&out, 1, 20) > 0) {
            const std::scoped_lock lock(write_lock);
            const ssize_t count = write(output_fd(), buffer.data() + written, feed + 1 - written);
            if (count > 0)
                note_written(buffer.data() + written, static_cast<size_t>(count));
        }
    }
    drop();
}

bool ve_out_is_terminal()
{
    if (terminal < 0)
        terminal = isatty(STDOUT_FILENO);
    return terminal == 1;
}

void ve_out_reopened()
{
    const std::scoped_lock lock(write_lock);
    if (own_fd >= 0)
        close(own_fd);
    own_fd = -1;
    own_tried = false;
    terminal = -1;
    gone = false;
}

bool ve_out_mid_line()
{
    return buffer.empty() ? mid_line.load() : buffer.back() != '\n';
}

void ve_out_direct(const char *data, size_t size)
{
    const std::scoped_lock lock(write_lock);
    if (size > 0 && write_whole(data, size))
        note_written(data, size);
}

void ve_out_direct_rows(const char *data, size_t size)
{
    const bool on_terminal = isatty(STDOUT_FILENO) != 0;
    const std::scoped_lock lock(write_lock);
    if (on_terminal && shows_something(unfinished) && write_whole("\n", 1))
        note_written("\n", 1);
    if (size > 0 && write_whole(data, size))
        note_written(data, size);
}

std::string ve_out_unfinished_row()
{
    const std::scoped_lock lock(write_lock);
    return unfinished;
}

void ve_out_draw(const char *data, size_t size)
{
    const std::scoped_lock lock(write_lock);
    write_whole(data, size);
}

void ve_out_row_unknown()
{
    row_unknown = true;
    ve_out_row_ended();
}

bool ve_out_take_row_unknown()
{
    return std::exchange(row_unknown, false);
}

void ve_out_row_ended()
{
    const std::scoped_lock lock(write_lock);
    mid_line = false;
    unfinished.clear();
}

namespace
{

/// Bytes of the character at `at`, 0 when it is not well-formed UTF-8. `*code` receives the code point.
unsigned decode(const unsigned char *at, uint32_t *code)
{
    const unsigned length = at[0] < 0x80   ? 1
                            : at[0] < 0xc2 ? 0
                            : at[0] < 0xe0 ? 2
                            : at[0] < 0xf0 ? 3
                            : at[0] < 0xf5 ? 4
                                           : 0;
    if (length <= 1) {
        *code = at[0];
        return length;
    }
    uint32_t value = at[0] & (0xffU >> (length + 1));
    for (unsigned i = 1; i < length; ++i) {
        if ((at[i] & 0xc0U) != 0x80)
            return 0;
        value = value << 6 | (at[i] & 0x3fU);
    }
    *code = value;
    return value > 0x10ffff || (length == 3 && value < 0x800) || (length == 4 && value < 0x10000) ? 0 : length;
}

bool is_control(uint32_t code)
{
    return code < 0x20 || (code >= 0x7f && code < 0xa0);
}

/// `text` with visible escapes on a terminal, but for the control characters in `kept`.
const char *make_visible(const char *text, const char *kept)
{
    if (text == nullptr || !ve_out_is_terminal())
        return text;
    const auto *at = reinterpret_cast<const unsigned char *>(text);
    bool plain = true;
    for (const auto *byte = at; *byte != 0 && plain; ++byte)
        plain = (*byte >= 0x20 && *byte < 0x7f) || strchr(kept, *byte) != nullptr;
    if (plain)
        return text;
    static std::string results[8];
    static unsigned next = 0;
    std::string &result = results[next++ % std::size(results)];
    result.clear();
    char escape[16];
    while (*at != 0) {
        uint32_t code = 0;
        const unsigned length = decode(at, &code);
        const bool shown = length > 0 && (!is_control(code) || (length == 1 && strchr(kept, *at) != nullptr));
        if (shown) {
            result.append(reinterpret_cast<const char *>(at), length);
        } else {
            snprintf(escape, sizeof escape, length > 1 ? "\\u%04x" : "\\x%02x", length > 1 ? code : *at);
            result += escape;
        }
        at += length > 0 ? length : 1;
    }
    return result.c_str();
}

} // namespace

const char *ve_visible(const char *text)
{
    return make_visible(text, "");
}

const char *ve_visible_lines(const char *text)
{
    return make_visible(text, "\t\n");
}

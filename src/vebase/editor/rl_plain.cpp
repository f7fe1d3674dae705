#include "vebase/editor/rl_plain.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/framing.h"
#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_control.h"

namespace
{

constexpr size_t block_size = 16384;
constexpr size_t peek_size = 4096;

std::string partial; // the line so far
bool shares = false; // lines were read: whoever reads besides must leave the following ones
int peek_pipe[2] = {-1, -1};

enum class source { file, pipe, socket, terminal, other };

source source_of(int fd)
{
    struct stat info;
    if (fstat(fd, &info) < 0)
        return source::other;
    if (S_ISREG(info.st_mode))
        return source::file;
    if (S_ISFIFO(info.st_mode))
        return source::pipe;
    if (S_ISSOCK(info.st_mode))
        return source::socket;
    return isatty(fd) != 0 ? source::terminal : source::other;
}

/// Bytes up to the first line feed, or all of them.
size_t line_part(const char *data, size_t size)
{
    const void *feed = memchr(data, '\n', size);
    return feed != nullptr ? static_cast<size_t>(static_cast<const char *>(feed) - data) + 1 : size;
}

/// How many of the next bytes of a pipe, `size` at most, belong to the line; -1 with errno, 0 at the end.
ssize_t peek_at_pipe(char *data, size_t size)
{
    if (peek_pipe[0] < 0 && pipe2(peek_pipe, O_CLOEXEC | O_NONBLOCK) < 0)
        return 1;
    const ssize_t count = tee(STDIN_FILENO, peek_pipe[1], std::min(size, peek_size), SPLICE_F_NONBLOCK);
    if (count <= 0)
        return count;
    ssize_t copied = 0;
    while (copied < count) {
        const ssize_t got = read(peek_pipe[0], data + copied, static_cast<size_t>(count - copied));
        if (got <= 0)
            return 1;
        copied += got;
    }
    return static_cast<ssize_t>(line_part(data, static_cast<size_t>(count)));
}

/// What is typed ahead of a command can be several lines, which the terminal gives at once.
ssize_t read_terminal(char *data, size_t size)
{
    size_t count = rl_edit_take_ahead(data, size);
    int more = count > 0 ? 0 : 1;
    while (count < size && more > 0 && (count == 0 || data[count - 1] != '\n')) {
        const ssize_t got = read(STDIN_FILENO, data + count, 1);
        if (got <= 0)
            return count > 0 ? static_cast<ssize_t>(count) : got;
        ++count;
        if (ioctl(STDIN_FILENO, FIONREAD, &more) < 0)
            break;
    }
    const size_t left = rl_edit_take_paste_end(data, count);
    if (left > 0)
        return static_cast<ssize_t>(left);
    errno = EAGAIN;
    return -1;
}

/// Reads what is there of the line, at most up to its end and `size` bytes. As read() returns.
ssize_t read_part(char *data, size_t size)
{
    switch (source_of(STDIN_FILENO)) {
    case source::file: {
        const ssize_t count = read(STDIN_FILENO, data, size);
        if (count <= 0)
            return count;
        const size_t part = line_part(data, static_cast<size_t>(count));
        if (part < static_cast<size_t>(count))
            lseek(STDIN_FILENO, static_cast<off_t>(part) - count, SEEK_CUR);
        return static_cast<ssize_t>(part);
    }
    case source::pipe: {
        const ssize_t part = peek_at_pipe(data, size);
        // A pipe that cannot be looked into is read byte by byte.
        return part == 0 ? 0 : read(STDIN_FILENO, data, part < 0 ? 1 : static_cast<size_t>(part));
    }
    case source::socket: {
        const ssize_t count = recv(STDIN_FILENO, data, std::min(size, peek_size), MSG_PEEK);
        return count <= 0 ? count : read(STDIN_FILENO, data, line_part(data, static_cast<size_t>(count)));
    }
    case source::terminal:
        return read_terminal(data, size);
    case source::other:
        break;
    }
    return read(STDIN_FILENO, data, 1);
}

void append(const char *data, size_t size)
{
    for (const char *end = data + size; data < end;) {
        const void *nul = memchr(data, '\0', static_cast<size_t>(end - data));
        const char *stop = nul != nullptr ? static_cast<const char *>(nul) : end;
        partial.append(data, stop);
        if (nul != nullptr)
            partial.append("\xc0\x80");
        data = nul != nullptr ? stop + 1 : stop;
    }
}

/// Moves the first line of what was read to `line`.
bool take_line(std::string &line, size_t searched)
{
    const size_t feed = partial.find('\n', searched);
    if (feed == std::string::npos)
        return false;
    line.assign(partial, 0, feed);
    partial.erase(0, feed + 1);
    return true;
}

} // namespace

rl_outcome rl_plain_line(const char *prompt, int64_t deadline, std::string &line)
{
    shares = true;
    if (take_line(line, 0))
        return rl_outcome::line;
    static char data[block_size];
    for (;;) {
        if (rl_control_take_stop())
            return rl_outcome::stop;
        // What another thread printed stands on rows of its own.
        if (prompt != nullptr && !rl_control_hidden() && ve_out_unfinished_row().empty())
            ve_out_direct(prompt, strlen(prompt));
        pollfd fds[] = {{STDIN_FILENO, POLLIN, 0}, {rl_control_fd(), POLLIN, 0}};
        const int ready = ve_wait_poll(fds, 2, deadline);
        if (ready == 0)
            return rl_outcome::timeout;
        if (ready < 0) {
            partial.clear();
            return rl_outcome::stop;
        }
        if (fds[1].revents != 0)
            rl_control_drain();
        if (fds[0].revents == 0)
            continue;
        const ssize_t count = read_part(data, block_size);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count < 0) {
            rl_note_input_error(errno);
            partial.clear(); // half a line may mean something else
            return rl_outcome::end;
        }
        if (count == 0) {
            if (partial.empty())
                return rl_outcome::end;
            line = std::move(partial);
            partial.clear();
            return rl_outcome::line;
        }
        const size_t searched = partial.size();
        append(data, static_cast<size_t>(count));
        if (take_line(line, searched))
            return rl_outcome::line;
        // No request could be made of it.
        if (partial.size() > wire_line_max) {
            rl_note_input_error(EMSGSIZE);
            partial = {};
            return rl_outcome::end;
        }
    }
}

ssize_t rl_plain_read(char *data, size_t size)
{
    for (;;) {
        pollfd in{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
        if (ve_wait_poll(&in, 1, rl_edit_has_ahead() ? ve_wait_deadline(0) : -1) < 0) {
            errno = EINTR;
            return -1;
        }
        const bool on_terminal = source_of(STDIN_FILENO) == source::terminal;
        const ssize_t count = shares || on_terminal ? read_part(data, size) : read(STDIN_FILENO, data, size);
        if (on_terminal)
            ve_out_row_unknown(); // the terminal echoes what is typed, but not what was typed at a prompt
        if (count >= 0 || errno != EAGAIN)
            return count;
    }
}

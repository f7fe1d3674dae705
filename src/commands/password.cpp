#include "commands/password.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/ve_out.h"
#include "platform/ve_rl.h"
#include "platform/ve_wait.h"

namespace
{

bool on_error = false; // where the prompt goes

void show(const std::string &text)
{
    ve_out_write(text.data(), text.size());
    ve_out_flush();
    if (on_error)
        ve_out_write_error(text.data(), text.size());
}

/// Keeps the terminal from echoing.
class silence
{
public:
    explicit silence(const std::string &question) { ve_rl_echo_off(STDIN_FILENO, question.c_str()); }
    ~silence() { ve_rl_echo_on(STDIN_FILENO); }
    silence(const silence &) = delete;
    silence &operator=(const silence &) = delete;
};

/// Reads up to the line feed and not a byte further. False when Ctrl-C or Ctrl-D ended it.
bool read_terminal(secret_text *line)
{
    for (;;) {
        char byte;
        if (ve_rl_take_ahead(&byte)) {
            if (byte == '\n')
                return true;
            line->add(byte);
            continue;
        }
        pollfd input{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
        if (ve_wait_poll(&input, 1, -1) < 0)
            return false;
        const ssize_t count = read(STDIN_FILENO, &byte, 1);
        if (count < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (count <= 0)
            return false;
        if (byte == '\n')
            return true;
        line->add(byte);
    }
}

/// The next line of an input that is no terminal, which the line editor may have read ahead.
bool read_plain(secret_text *line)
{
    char *text = ve_rl("", -1);
    if (text == nullptr)
        return !ve_wait_interrupted();
    for (const char *at = text; *at != '\0'; ++at)
        line->add(*at);
    explicit_bzero(text, strlen(text));
    free(text);
    return true;
}

} // namespace

void secret_text::add(char byte)
{
    if (size() == capacity()) {
        secret_text larger;
        larger.reserve(2 * size());
        larger.append(*this);
        swap(larger);
    }
    push_back(byte);
}

void secret_text::wipe()
{
    explicit_bzero(data(), capacity());
    clear();
}

void password_ask_on_error(bool hidden)
{
    on_error = hidden;
}

bool password_read(const char *user, secret_text *password)
{
    const std::string question = "[kest] password for " + (on_error ? ve_visible_error(user) : ve_visible(user)) + ": ";
    bool read;
    {
        const silence silent(question); // whoever sees it may type at once
        show(question);
        read = isatty(STDIN_FILENO) == 1 ? read_terminal(password) : read_plain(password);
    }
    show("\n");
    return read;
}

#include "veld/passwords.h"

#include "veld/model/password.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <termios.h>
#include <unistd.h>

namespace veld
{

namespace
{

using file_owner = std::unique_ptr<FILE, int (*)(FILE *)>;

// Lets nobody read along while it lives.
class silent_terminal
{
public:
    explicit silent_terminal(int fd) : fd_(fd)
    {
        termios quiet{};
        if (tcgetattr(fd_, &before_) != 0)
            return;
        quiet = before_;
        quiet.c_lflag &= ~tcflag_t{ECHO};
        changed_ = tcsetattr(fd_, TCSAFLUSH, &quiet) == 0;
    }
    silent_terminal(const silent_terminal &) = delete;
    silent_terminal &operator=(const silent_terminal &) = delete;
    ~silent_terminal()
    {
        if (changed_)
            tcsetattr(fd_, TCSAFLUSH, &before_);
    }

private:
    int fd_;
    termios before_{};
    bool changed_ = false;
};

// One line without its end; false at the end of the file.
bool line_of(FILE *file, std::string *line)
{
    char *text = nullptr;
    size_t room = 0;
    const ssize_t length = getline(&text, &room, file);
    if (length > 0) {
        line->assign(text, static_cast<size_t>(length));
        line->resize(line->find_last_not_of("\r\n") + 1);
    }
    if (text != nullptr)
        explicit_bzero(text, room);
    free(text);
    return length > 0;
}

bool ask(const std::string &name, std::string *line)
{
    const silent_terminal quiet(STDIN_FILENO); // before anybody is asked to type
    fprintf(stderr, "Password of %s: ", name.c_str());
    fflush(stderr);
    const bool got = line_of(stdin, line);
    fputc('\n', stderr);
    return got;
}

} // namespace

bool passwords_take(std::vector<first_user> users, const std::string &file, std::string *error)
{
    file_owner lines(nullptr, fclose);
    if (!users.empty() && !file.empty()) {
        lines.reset(fopen(file.c_str(), "re"));
        if (!lines) {
            *error = file + ": " + strerror(errno);
            return false;
        }
    }
    const bool terminal = !lines && isatty(STDIN_FILENO) != 0;
    for (first_user &who : users) {
        std::string password;
        const bool got = terminal ? ask(who.name, &password) : line_of(lines ? lines.get() : stdin, &password);
        const json_ref text{json_stringn(password.data(), password.size())};
        explicit_bzero(password.data(), password.size());
        if (!got || json_string_length(text.get()) == 0 || !password_possible(text.get())) {
            *error = "--user " + who.name + ": no password" + (file.empty() ? "" : " in " + file);
            return false;
        }
        who.hash = password_hash(text.get());
        first_user_add(std::move(who));
    }
    return true;
}

} // namespace veld

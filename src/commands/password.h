// Asking for a password.
#pragma once

#include <string>

/// A text that is wiped when it goes.
class secret_text : public std::string
{
public:
    secret_text() { reserve(first_room); }
    secret_text(const secret_text &) = delete;
    secret_text &operator=(const secret_text &) = delete;
    ~secret_text() { wipe(); }

    /// Appends, leaving no copy behind where the text grows.
    void add(char byte);
    void wipe();

private:
    static constexpr size_t first_room = 512;
};

/// Where the prompt is written: to standard error while the output is hidden, else to the output.
void password_ask_on_error(bool hidden);
/// Asks for `user`'s password: a prompt, then a line without echo. The end of an input that is no terminal is an empty
/// password. False when Ctrl-C ended it, or Ctrl-D on a terminal. A wait point.
bool password_read(const char *user, secret_text *password);

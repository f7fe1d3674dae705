#include "vebase/editor/rl_ahead.h"

#include <algorithm>
#include <string_view>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace
{

constexpr size_t queue_size = 4095; // what a terminal holds for its reader

} // namespace

void rl_ahead::clear()
{
    text_.clear();
    at_ = 0;
}

char rl_ahead::take()
{
    const char byte = text_[at_++];
    if (empty())
        clear();
    return byte;
}

size_t rl_ahead::take_line(char *data, size_t size)
{
    const auto rest = std::string_view{text_}.substr(at_);
    const size_t count =
        std::min({size, rest.size(), rest.find('\n') < rest.size() ? rest.find('\n') + 1 : rest.size()});
    std::copy_n(rest.data(), count, data);
    at_ += count;
    if (empty())
        clear();
    return count;
}

void rl_ahead::put_back()
{
    termios modes;
    if (empty() || tcgetattr(STDIN_FILENO, &modes) != 0)
        return;
    termios quiet = modes;
    quiet.c_iflag &= ~static_cast<tcflag_t>(INLCR | IGNCR);
    quiet.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO | ECHONL | ISIG | IEXTEN);
    quiet.c_cc[VMIN] = 1;
    quiet.c_cc[VTIME] = 0;
    tcsetattr(STDIN_FILENO, TCSANOW, &quiet);
    // What was typed since then comes behind it.
    for (int count = 0; ioctl(STDIN_FILENO, FIONREAD, &count) == 0 && count > 0;) {
        const size_t before = text_.size();
        text_.resize(before + static_cast<size_t>(count));
        const ssize_t got = read(STDIN_FILENO, text_.data() + before, static_cast<size_t>(count));
        text_.resize(before + static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (got <= 0)
            break;
    }
    for (size_t room = queue_size; room > 0 && !empty() && ioctl(STDIN_FILENO, TIOCSTI, &text_[at_]) == 0; --room)
        ++at_;
    if (empty())
        clear();
    tcsetattr(STDIN_FILENO, TCSANOW, &modes);
}

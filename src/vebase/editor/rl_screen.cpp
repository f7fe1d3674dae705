#include "vebase/editor/rl_screen.h"

#include <algorithm>
#include <sys/ioctl.h>
#include <unistd.h>

#include "platform/ve_out.h"
#include "platform/ve_wait.h"
#include "vebase/editor/rl_control.h"
#include "vebase/editor/rl_text.h"
#include "vebase/escapes.h"

namespace
{

constexpr size_t before_max = 4096; // bytes of an unfinished row that a prompt follows

/// The characters of an output row as they stand on the screen: no escape sequences, nothing before a CR.
std::string plain_row(std::string_view all)
{
    std::string row;
    for (size_t i = 0; i < all.size(); ++i) {
        const char c = all[i];
        if (c == '\r') {
            row.clear();
        } else if (c == '\b') {
            row.resize(row.size() - utf8_last(row).size);
        } else if (c == '\033') {
            const std::string_view sequence = all.substr(i, escape_size(all.substr(i)));
            if (sequence.starts_with("\033[") && (sequence.back() == 'H' || sequence.back() == 'J'))
                row.clear();
            i += sequence.size() - 1;
        } else if (static_cast<unsigned char>(c) >= 0x20 || c == '\t') {
            row.push_back(c);
        }
    }
    return row;
}

void write_screen(const std::string &bytes)
{
    ve_out_draw(bytes.data(), bytes.size());
}

} // namespace

rl_size rl_terminal_size()
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) < 0)
        size = {};
    return {size.ws_col > 0 ? size.ws_col : 80, size.ws_row > 0 ? size_t{size.ws_row} : 24};
}

void rl_ring_bell()
{
    ve_out_draw("\a", 1);
}

void rl_screen::resized()
{
    size_ = rl_terminal_size();
    last_.clear(); // the same bytes may mean another picture
}

void rl_screen::begin(std::string_view prompt, const std::string &prompt_color, const std::string &hint_color)
{
    resized();
    prompt_ = rl_visible(prompt);
    prompt_color_ = prompt_color;
    hint_color_ = hint_color;
    go_behind_output();
}

/// Something may have been printed since the screen was last looked at.
void rl_screen::look_at_output()
{
    const size_t printed = ve_out_count();
    if (printed == found_at_)
        return;
    if (shown_)
        ve_out_row_unknown(); // it began behind the line
    // A line that was taken off the screen for it comes back as it was, with what stood before it.
    if (shown_ || !drawn_ || !ve_out_unfinished_row().empty())
        go_behind_output();
    else
        found_at_ = printed;
}

void rl_screen::go_behind_output()
{
    forget();
    drawn_ = false;
    found_at_ = ve_out_count();
    std::string unfinished = ve_out_mid_line() ? ve_out_unfinished_row() : std::string{};
    if (ve_out_take_row_unknown()) {
        // As many blanks as the row is wide end on the next row unless they began at the beginning of one.
        write_screen(std::string(static_cast<size_t>(size_.columns), ' ') + "\r\033[K");
        ve_out_row_ended();
        unfinished.clear();
    } else if (unfinished.size() >= before_max) {
        write_screen("\r\n");
        ve_out_row_ended();
        unfinished.clear();
    }
    before_ = plain_row(unfinished);
    if (!before_.empty()) {
        // The cursor stands behind that row, on its last cell when it fills the screen's width.
        const rl_layout there = rl_lay_out({{before_, {}}}, 0, before_.size(), size_.columns);
        const size_t rows = there.rows.size();
        painted_.cursor = rows > 1 && there.rows.back().width == 0 ? rows - 2 : rows - 1;
        painted_.cursor = std::min(painted_.cursor, size_.rows - 1);
    }
}

/// The right to draw, behind whatever was printed meanwhile.
bool rl_screen::claim()
{
    if (!rl_control_claim_screen())
        return false;
    look_at_output();
    drawn_ = true;
    return true;
}

rl_layout rl_screen::lay_out(const content &what, std::string_view suffix) const
{
    const size_t cursor_piece = what.asks ? 6 : suffix.empty() ? 2 : 3;
    const size_t cursor = what.asks ? what.message.size() : suffix.empty() ? what.cursor : suffix.size();
    return rl_lay_out({{before_, {}},
                       {prompt_, prompt_color_},
                       {what.text, {}},
                       {suffix, {}},
                       {what.hint, hint_color_},
                       {what.message.empty() ? "" : "\n", {}},
                       {what.message, {}}},
                      cursor_piece, cursor, size_.columns);
}

bool rl_screen::draw(const content &what)
{
    if (!claim())
        return false;
    const rl_layout layout = lay_out(what, {});
    rl_painted again = painted_;
    std::string repeated = rl_paint(layout, size_.rows, again);
    // What stands there already is not written again.
    if (shown_ && repeated == last_)
        return true;
    write_screen(repeated);
    painted_ = again;
    last_ = rl_paint(layout, size_.rows, again);
    shown_ = true;
    return true;
}

void rl_screen::erase()
{
    // Before the first picture the row is the output's own; what comes to it meanwhile is looked at by claim().
    if (drawn_) {
        if (shown_ && ve_out_count() != found_at_) {
            ve_out_row_unknown(); // somebody did not wait, and has written behind the line
            drawn_ = false;
        } else if (shown_) {
            write_screen(rl_erase(painted_));
        }
        forget();
    }
    rl_control_release_screen();
}

void rl_screen::leave()
{
    erase();
    if (drawn_ && !before_.empty() && !rl_control_hidden())
        write_screen(before_);
}

void rl_screen::finish(std::string_view text, std::string_view suffix, bool new_row)
{
    if (!claim()) {
        erase();
        const int64_t deadline = ve_wait_deadline(rl_screen_patience_ms);
        pollfd wake{.fd = rl_control_fd(), .events = POLLIN, .revents = 0};
        while (!claim()) {
            if (ve_wait_poll(&wake, 1, deadline) <= 0)
                rl_control_unhide();
            rl_control_drain();
        }
    }
    const rl_layout layout = lay_out({.text = text, .cursor = text.size()}, suffix);
    std::string bytes = rl_paint(layout, size_.rows, painted_);
    const size_t count = layout.rows.size();
    const bool fresh = count > 1 && layout.rows.back().width == 0 && layout.rows[count - 2].full;
    if (new_row && !fresh)
        bytes += "\r\n";
    write_screen(bytes);
    if (new_row) {
        ve_out_row_ended();
        before_.clear();
    }
    forget();
    rl_control_release_screen();
}

void rl_screen::forget()
{
    painted_ = {};
    last_.clear();
    shown_ = false;
}

// The line on the screen: drawn, taken off for somebody else's text, drawn again. Main thread only.
#pragma once

#include <string>
#include <string_view>

#include "vebase/editor/rl_layout.h"

/// Size of the terminal on descriptor 1 (80 by 24 when it does not say).
struct rl_size {
    int columns;
    size_t rows;
};
rl_size rl_terminal_size();

void rl_ring_bell();

/// How long another thread may keep the screen.
constexpr int rl_screen_patience_ms = 1000;

class rl_screen
{
public:
    /// What a drawing shows behind the prompt.
    struct content {
        std::string_view text;
        size_t cursor = 0;
        std::string_view hint = {};    ///< shown behind the text, in its colour
        std::string_view message = {}; ///< shown below
        bool asks = false;             ///< the cursor stands behind the message
    };

    /// Begins a read: the prompt goes behind what the output's last row already holds.
    void begin(std::string_view prompt, const std::string &prompt_color, const std::string &hint_color);
    /// Shows `what`. False, and nothing is drawn, while another thread wants the screen.
    bool draw(const content &what);
    /// Takes the line off the screen, if it is there.
    void erase();
    /// Takes the line off the screen for good; the row it began on is as it was found.
    void leave();
    /// Shows `text` and `suffix` a last time and goes to a new row if `new_row`; waits for the screen when it must.
    void finish(std::string_view text, std::string_view suffix, bool new_row);
    /// The screen has changed under us and the cursor is at the beginning of a free row.
    void forget();
    /// The terminal may have another size.
    void resized();
    const rl_size &size() const { return size_; }

private:
    bool claim();
    void look_at_output();
    void go_behind_output();
    rl_layout lay_out(const content &what, std::string_view suffix) const;

    rl_size size_{80, 24};
    std::string before_; // the unfinished row that the prompt follows
    std::string prompt_;
    std::string prompt_color_;
    std::string hint_color_;
    rl_painted painted_;
    std::string last_; // what the last drawing wrote, when it still stands
    bool shown_ = false;
    bool drawn_ = false;  // at least once since begin(), behind before_
    size_t found_at_ = 0; // so much had been printed when the screen was looked at last
};

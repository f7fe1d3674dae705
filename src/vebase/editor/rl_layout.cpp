#include "vebase/editor/rl_layout.h"

#include <algorithm>

#include "vebase/editor/rl_text.h"

namespace
{

constexpr int tab_width = 8;
constexpr std::string_view reset_color = "\033[0m";

class builder
{
public:
    explicit builder(int width) : width_(width) { layout_.rows.emplace_back(); }

    void set_color(std::string_view color)
    {
        end_color();
        color_ = color;
        takes_marks_ = false; // pieces do not join
    }

    /// `marked`: zero-width characters follow.
    void put(const utf8_step &character, bool marked)
    {
        if (character.code == '\n' || character.code == '\t')
            takes_marks_ = false;
        if (character.code == '\n') {
            settle_cursor();
            new_row(true);
        } else if (character.code == '\t') {
            // A tab never crosses the end of a row.
            do
                put_cell(" ", 1);
            while (row().width % tab_width != 0 && row().width < width_);
        } else {
            rl_shown shown = rl_show(character);
            if (shown.width == 0 && !takes_marks_)
                shown = rl_spell(character);
            takes_marks_ = !shown.spelled;
            if (shown.spelled) {
                for (const char &cell : shown.bytes)
                    put_cell({&cell, 1}, 1);
            } else {
                // In the last column some terminals take the mark for the next row's.
                const int room = marked && shown.width > 0 ? 1 : 0;
                put_cell(shown.bytes, shown.width, room);
            }
        }
    }

    /// The cursor stands where the next cell goes.
    void place_cursor() { cursor_waits_ = true; }

    rl_layout finish()
    {
        end_color();
        if (row().width == width_)
            new_row(true);
        settle_cursor(); // on the new row
        return std::move(layout_);
    }

private:
    rl_row &row() { return layout_.rows.back(); }

    void settle_cursor()
    {
        if (!cursor_waits_)
            return;
        cursor_waits_ = false;
        layout_.cursor_row = layout_.rows.size() - 1;
        layout_.cursor_column = std::min(row().width, width_ - 1);
    }

    /// `room`: cells that must stay free behind it.
    void put_cell(std::string_view bytes, int width, int room = 0)
    {
        if (width > 0 && row().width > 0 && row().width + width + room > width_) {
            if (row().width < width_) {
                row().bytes.append(static_cast<size_t>(width_ - row().width), ' ');
                row().width = width_;
            }
            new_row(false);
        }
        settle_cursor();
        if (!color_.empty() && !coloured_) {
            row().bytes.append(color_);
            coloured_ = true;
        }
        row().bytes.append(bytes);
        row().width += width;
    }

    void new_row(bool hard)
    {
        if (coloured_)
            row().bytes.append(reset_color);
        coloured_ = false;
        row().hard = hard;
        row().full = row().width == width_;
        layout_.rows.emplace_back();
    }

    void end_color()
    {
        if (coloured_)
            row().bytes.append(reset_color);
        coloured_ = false;
        color_ = {};
    }

    const int width_;
    rl_layout layout_;
    std::string_view color_;
    bool coloured_ = false;
    bool takes_marks_ = false; // the last character is one that a combining mark can join
    bool cursor_waits_ = false;
};

bool is_mark(const utf8_step &character)
{
    return character.well_formed && character.code >= 0x300 && rl_show(character).width == 0;
}

void append_move(std::string &out, size_t count, char direction)
{
    if (count == 0)
        return;
    out += "\033[";
    out += std::to_string(count);
    out += direction;
}

} // namespace

rl_layout rl_lay_out(const std::vector<rl_piece> &pieces, size_t cursor_piece, size_t cursor, int width)
{
    builder build{std::max(width, 2)};
    for (size_t i = 0; i < pieces.size(); ++i) {
        build.set_color(pieces[i].color);
        const std::string_view text = pieces[i].text;
        size_t behind = 0;
        for (size_t at = 0; at < text.size(); at = behind) {
            const utf8_step character = utf8_first(text.substr(at));
            behind = at + character.size;
            if (i == cursor_piece && at <= cursor && cursor < behind)
                build.place_cursor();
            build.put(character, is_mark(utf8_first(text.substr(behind))));
        }
        if (i == cursor_piece && cursor >= text.size())
            build.place_cursor();
    }
    return build.finish();
}

std::string rl_paint(const rl_layout &layout, size_t height, rl_painted &painted)
{
    const size_t count = layout.rows.size();
    const size_t shown = std::min(count, std::max<size_t>(height, 1));
    // The window moves only as far as the cursor makes it.
    size_t top = std::min(painted.top, count - shown);
    top = std::min(top, layout.cursor_row);
    if (layout.cursor_row >= top + shown)
        top = layout.cursor_row - shown + 1;

    std::string out;
    append_move(out, painted.cursor, 'A');
    out += '\r';
    for (size_t i = top; i < top + shown; ++i) {
        const rl_row &row = layout.rows[i];
        const bool last = i + 1 == top + shown;
        out += row.bytes;
        // Behind a full row the cursor still stands on its last cell, which an erase would take.
        if (!row.full)
            out += last ? "\033[J" : "\033[K";
        if (!last && row.hard)
            out += "\r\n";
    }
    append_move(out, top + shown - 1 - layout.cursor_row, 'A');
    out += '\r';
    append_move(out, static_cast<size_t>(layout.cursor_column), 'C');
    painted.top = top;
    painted.cursor = layout.cursor_row - top;
    return out;
}

std::string rl_erase(const rl_painted &painted)
{
    std::string out;
    append_move(out, painted.cursor, 'A');
    out += "\r\033[J";
    return out;
}

// Completion and hints on the screen: when the callbacks run, what is done with what they say.
#include <algorithm>
#include <memory>
#include <vector>

#include "platform/ve_out.h"
#include "platform/ve_words.h"
#include "vebase/editor/rl_columns.h"
#include "vebase/editor/rl_complete.h"
#include "vebase/editor/rl_session.h"
#include "vebase/editor/rl_text.h"

namespace
{

constexpr size_t listing_piece = 4096; // bytes of a listing between two looks at the keyboard

std::vector<std::string_view> texts_of(const json_t *found)
{
    std::vector<std::string_view> texts;
    texts.reserve(json_array_size(found));
    for (size_t i = 0; i < json_array_size(found); ++i) {
        const json_t *value = json_array_get(found, i);
        const std::string_view text{json_string_value(value), json_string_length(value)};
        // A line cannot hold a NUL.
        if (!text.empty() && text.find('\0') == std::string_view::npos)
            texts.push_back(text);
    }
    return texts;
}

size_t default_start(const std::string &line, size_t cursor)
{
    while (cursor > 0 && line[cursor - 1] != ' ' && line[cursor - 1] != '\t')
        --cursor;
    return cursor;
}

} // namespace

/// Runs a callback, serving keyboard and control codes whenever it waits. False when it was abandoned.
template <class Call> bool rl_session::run_callback(callback kind, const Call &call)
{
    running_ = kind;
    rl_set.completion_start_set = false;
    rl_set.completion_verbatim = false;
    abandoned_ = false;
    if (look_ahead())
        interrupt_typed();
    if (!abandoned_ && outcome_ == rl_outcome::none) {
        ve_wait_set_companion(this);
        call();
        ve_wait_set_companion(nullptr);
    }
    modes_.make_ctrl_c(rl_modes::ctrl_c::key);
    // A Ctrl-C that came while it computed is older than every key that is read from now on.
    ve_wait_checkpoint();
    serve_outside();
    running_ = callback::none;
    ve_wait_clear_interrupt();
    ve_out_flush();
    return !abandoned_ && outcome_ == rl_outcome::none;
}

/// Candidates for the cursor as an array, none when the user did not wait for them.
json_ref rl_session::candidates(const std::string &line, size_t cursor_byte)
{
    json_ref found{json_array()};
    const bool complete =
        run_callback(callback::complete, [&] { rl_set.autocomplete(line.c_str(), cursor_byte, found.get()); });
    if (!rl_set.completion_start_set || rl_set.completion_start > cursor_byte)
        rl_set.completion_start = default_start(line, cursor_byte);
    return complete ? std::move(found) : json_ref{};
}

/// Puts what the candidates say into the line. True when that changed it.
bool rl_session::insert_candidate(const json_t *found, const std::string &line)
{
    const size_t start = rl_set.completion_start;
    const rl_replacement merged = rl_merge(line, start, line_.cursor(), texts_of(found), rl_set.completion_verbatim);
    if (!merged.changes)
        return false;
    line_.replace_typed(start, merged.text);
    return true;
}

void rl_session::complete()
{
    if (rl_set.autocomplete == nullptr)
        return rl_ring_bell();
    const bool again = line_.repeated();
    const std::string line = line_.text();
    const json_ref found = candidates(line, line_.cursor());
    if (!found)
        return;
    const size_t count = json_array_size(found.get());
    if (insert_candidate(found.get(), line))
        return;
    if (count > 1 && again)
        list(found.get());
    else if (count != 1)
        rl_ring_bell();
}

/// Asks below the line. Keys other than an answer are refused.
bool rl_session::confirm(const std::string &question)
{
    for (;;) {
        serve_outside();
        if (outcome_ != rl_outcome::none)
            return false;
        if (rl_control_hidden()) {
            wait_hidden();
            continue;
        }
        rl_key key;
        if (keys_.take(&key)) {
            if (!key.text.empty() && std::string_view{"yY "}.find(key.text) != std::string_view::npos)
                return true;
            // Nor is a key that means nothing, such as ESC, a wish to see them.
            if (key.op == nullptr ? std::string_view{"nNq"}.find(key.text) != std::string_view::npos
                                  : key.op == &rl_line::rub || key.op == &rl_line::cancel)
                return false;
            rl_ring_bell();
            continue;
        }
        if (take_byte()) {
            if (outcome_ == rl_outcome::interrupt) {
                outcome_ = rl_outcome::none;
                return false;
            }
            continue;
        }
        draw(question);
        wait_for_input(-1);
    }
}

/// Between two pieces of a listing: lets events through. True when the user has seen enough.
bool rl_session::pause_listing()
{
    pollfd fds[4];
    const unsigned count = watch(fds);
    if (ve_wait_poll(fds, count, ve_wait_deadline(0)) <= 0 && !rl_control_hidden())
        return false;
    const bool enough = serve(fds, count);
    ve_wait_clear_interrupt();
    wait_hidden();
    return enough;
}

void rl_session::list(const json_t *found)
{
    std::vector<std::string> names;
    for (const std::string_view text : texts_of(found))
        names.push_back(rl_visible(text));
    const size_t count = names.size();
    rl_columns columns{names, screen_.size().columns};
    if (columns.screen_rows() >= screen_.size().rows) {
        const std::string question = "Display all " + std::to_string(count) + " possibilities? (y or n)";
        const bool yes = confirm(question);
        if (outcome_ != rl_outcome::none)
            return;
        screen_.finish(line_.text(), "\n" + question, true);
        if (!yes)
            return;
        columns = {std::move(names), screen_.size().columns}; // which may have changed meanwhile
    } else {
        screen_.finish(line_.text(), {}, true);
    }
    abandoned_ = false;
    running_ = callback::complete;
    modes_.make_ctrl_c(rl_modes::ctrl_c::signal);
    std::string out;
    for (size_t row = 0; row < columns.rows(); ++row) {
        out += rl_set.autocomplete_color;
        columns.append_row(row, out);
        if (!rl_set.autocomplete_color.empty())
            out += "\033[0m";
        out += "\r\n";
        if (out.size() < listing_piece && row + 1 < columns.rows())
            continue;
        ve_out_draw(out.data(), out.size());
        out.clear();
        if (pause_listing())
            break;
    }
    modes_.make_ctrl_c(rl_modes::ctrl_c::key);
    running_ = callback::none;
}

void rl_session::forget_hint()
{
    hint_.clear();
    hint_text_.clear();
    hint_known_ = false;
}

/// After keys: what of the hint still holds.
void rl_session::refresh_hint()
{
    const std::string_view now = line_.text();
    if (now == hint_text_)
        return;
    // A key that the hint foretold leaves the rest of it standing until the next pause.
    if (now.size() > hint_text_.size() && now.starts_with(hint_text_) &&
        hint_.starts_with(now.substr(hint_text_.size())))
        hint_.erase(0, now.size() - hint_text_.size());
    else
        hint_.clear();
    hint_text_ = now;
    hint_known_ = false;
}

/// Asks for the hint of the line as it is now.
void rl_session::find_hint()
{
    const std::string line = line_.text();
    char *hint = nullptr;
    const bool complete = run_callback(callback::hint, [&] { hint = rl_set.hint(line.c_str()); });
    const std::unique_ptr<char, decltype(&free)> owner{hint, &free};
    hint_text_ = line_.text();
    hint_.clear();
    if (complete && hint != nullptr)
        hint_ = hint;
    // After Ctrl-C the same line is not asked about again.
    hint_known_ = true;
}

/// Puts into the line what Tab would, when a hint is on the screen. False when none is.
bool rl_session::accept_hint()
{
    if (hint_.empty() || hint_text_ != line_.text() || !line_.at_end())
        return false;
    const std::string line = line_.text();
    const std::string hint = hint_;
    if (rl_set.autocomplete != nullptr) {
        const json_ref found = candidates(line, line.size());
        if (!found)
            return true;
        if (json_array_size(found.get()) == 1 && insert_candidate(found.get(), line))
            return true;
    }
    const ve_words words = ve_words_read(line);
    const size_t start = words.place(0);
    const std::string whole = std::string(words.current()) + hint;
    const rl_replacement merged = rl_merge(line, start, line.size(), {whole}, false);
    if (merged.changes)
        line_.replace_typed(start, merged.text);
    return true;
}

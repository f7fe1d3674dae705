#include "vebase/editor/rl_line.h"

#include <algorithm>
#include <cctype>
#include <utility>

#include "platform/ve_words.h"
#include "vebase/editor/rl_complete.h"

namespace
{

constexpr size_t cuts_max = 32;
constexpr size_t pattern_max = 1024;

/// Words end at the dots of a path and at "=".
bool is_word(const utf8_step &character)
{
    const char32_t code = character.code;
    if (code >= 0x80)
        return !character.well_formed || iswspace(code) == 0;
    return isalnum(static_cast<int>(code)) != 0 ||
           std::string_view{"*?_-[]~"}.find(static_cast<char>(code)) != std::string_view::npos;
}

} // namespace

void rl_line::begin(const ve_history &history, bool keep_text)
{
    history_ = &history;
    if (searching())
        end_search();
    if (!keep_text)
        buffer_.assign({});
    outside_.assign({});
    place_ = history_->size();
    pass(nullptr);
}

void rl_line::pass(rl_op op)
{
    before_ = std::exchange(last_, op);
    after_cut_ = std::exchange(cutting_, false);
    after_insert_ = std::exchange(inserting_, nullptr);
}

rl_done rl_line::apply(const rl_key &key)
{
    rl_done done = rl_done::yes;
    if (searching() && search_key(key, &done))
        return done;
    pass(key.op);
    if (key.op != nullptr)
        return (this->*key.op)();
    if (!key.text.empty())
        buffer_.type(key.text, key.pasted);
    return done;
}

rl_done rl_line::go(bool possible, size_t cursor)
{
    if (!possible)
        return rl_done::refused;
    buffer_.place(cursor);
    return rl_done::yes;
}

rl_done rl_line::change(size_t first, size_t last, std::string_view with)
{
    buffer_.replace(first, last, with);
    return rl_done::yes;
}

/// Cuts in a row make one piece.
rl_done rl_line::cut(size_t first, size_t last)
{
    cutting_ = true;
    if (first == last)
        return rl_done::refused;
    const std::string piece = text().substr(first, last - first);
    if (after_cut_ && !cuts_.empty())
        cuts_.back().insert(last == cursor() ? 0 : cuts_.back().size(), piece);
    else
        cuts_.push_back(piece);
    if (cuts_.size() > cuts_max)
        cuts_.erase(cuts_.begin());
    return change(first, last, {});
}

rl_done rl_line::cut_blank_word()
{
    size_t first = cursor();
    while (first > 0 && ve_words_is_blank(text()[first - 1]))
        --first;
    while (first > 0 && !ve_words_is_blank(text()[first - 1]))
        --first;
    return cut(first, cursor());
}

rl_done rl_line::yank()
{
    if (cuts_.empty())
        return rl_done::refused;
    inserting_ = &rl_line::yank;
    yanked_ = cuts_.size() - 1;
    inserted_at_ = cursor();
    return change(cursor(), cursor(), cuts_.back());
}

rl_done rl_line::yank_older()
{
    if (after_insert_ != &rl_line::yank)
        return rl_done::refused;
    inserting_ = &rl_line::yank;
    yanked_ = (yanked_ > 0 ? yanked_ : cuts_.size()) - 1;
    return change(inserted_at_, cursor(), cuts_[yanked_]);
}

rl_done rl_line::last_word()
{
    const bool again = after_insert_ == &rl_line::last_word;
    inserting_ = again ? after_insert_ : nullptr;
    for (size_t entry = again ? word_entry_ : place_; entry > 0;) {
        const std::string_view word = rl_last_word(history_->entry(--entry));
        if (word.empty())
            continue;
        if (!again)
            inserted_at_ = cursor();
        inserting_ = &rl_line::last_word;
        word_entry_ = entry;
        return change(inserted_at_, cursor(), word);
    }
    return rl_done::refused;
}

/// The characters around the cursor; at the end of the line the last two.
rl_done rl_line::swap()
{
    const std::string_view all{text()};
    const size_t last = at_end() ? cursor() : behind();
    const size_t second = last - utf8_last(all.substr(0, last)).size;
    const size_t first = second - utf8_last(all.substr(0, second)).size;
    if (cursor() == 0 || second == 0)
        return rl_done::refused;
    return change(first, last, std::string{all.substr(second, last - second)} + text().substr(first, second - first));
}

rl_done rl_line::change_case(wint_t (*first)(wint_t), wint_t (*others)(wint_t))
{
    const size_t last = word_right();
    std::string_view word{text().data() + cursor(), last - cursor()};
    std::string changed;
    for (auto change_next = first; !word.empty(); word.remove_prefix(utf8_first(word).size)) {
        const utf8_step character = utf8_first(word);
        if (character.well_formed && is_word(character))
            utf8_append(&changed, std::exchange(change_next, others)(character.code));
        else
            changed += word.substr(0, character.size);
    }
    return changed.empty() ? rl_done::refused : change(cursor(), last, changed);
}

size_t rl_line::word_left() const
{
    std::string_view rest{text().data(), cursor()};
    while (!rest.empty() && !is_word(utf8_last(rest)))
        rest.remove_suffix(utf8_last(rest).size);
    while (!rest.empty() && is_word(utf8_last(rest)))
        rest.remove_suffix(utf8_last(rest).size);
    return rest.size();
}

size_t rl_line::word_right() const
{
    std::string_view rest = std::string_view{text()}.substr(cursor());
    while (!rest.empty() && !is_word(utf8_first(rest)))
        rest.remove_prefix(utf8_first(rest).size);
    while (!rest.empty() && is_word(utf8_first(rest)))
        rest.remove_prefix(utf8_first(rest).size);
    return text().size() - rest.size();
}

/// Makes the line that entry of the history, or what it was outside the history. What was changed in an entry is lost.
rl_done rl_line::go_to(size_t entry)
{
    const size_t newest = history_->size();
    if (place_ >= newest)
        outside_ = std::move(buffer_);
    place_ = entry;
    if (entry >= newest)
        buffer_ = std::move(outside_);
    else
        buffer_.assign(std::string{history_->entry(entry)});
    buffer_.place(text().size());
    return rl_done::yes;
}

// --- the search ---

std::string rl_line::search_message() const
{
    const search_step &step = steps_.back();
    return (step.backward ? "bck" : "fwd") + std::string{step.failed ? "?" : ":"} + pattern_;
}

rl_done rl_line::begin_search(bool backward)
{
    searched_from_ = buffer_;
    searched_place_ = place_;
    pattern_.clear();
    steps_.push_back({backward, false, 0, place_, cursor()});
    return rl_done::yes;
}

/// A key while it searches. False when it ended the search and is to be applied to what that found.
bool rl_line::search_key(const rl_key &key, rl_done *done)
{
    if (!key.text.empty())
        *done = extend_pattern(key.text);
    else if (key.op == &rl_line::search_back || key.op == &rl_line::search_forward)
        *done = search_again(key.op == &rl_line::search_back);
    else if (key.op == &rl_line::rub)
        *done = take_back_step();
    else if (key.op == &rl_line::cancel)
        *done = cancel_search();
    else
        end_search();
    return searching() || key.op == &rl_line::cancel;
}

rl_done rl_line::extend_pattern(std::string_view character)
{
    if (pattern_.size() >= pattern_max)
        return rl_done::refused;
    pattern_ += character;
    search_step step = steps_.back();
    step.pattern = pattern_.size();
    // What is not there will not be there with more behind it.
    step.failed = step.failed || !find(step, false);
    return show(steps_.emplace_back(step));
}

rl_done rl_line::search_again(bool backward)
{
    search_step step = steps_.back();
    if (step.failed && step.backward == backward)
        return rl_done::refused;
    if (pattern_.empty())
        pattern_ = last_pattern_;
    step.backward = backward;
    step.pattern = pattern_.size();
    step.failed = !pattern_.empty() && !find(step, true);
    return show(steps_.emplace_back(step));
}

rl_done rl_line::take_back_step()
{
    if (steps_.size() == 1)
        return rl_done::refused;
    steps_.pop_back();
    pattern_.resize(steps_.back().pattern);
    show(steps_.back());
    return rl_done::yes;
}

/// Back to what was found last, or to the line that was searched from.
rl_done rl_line::cancel_search()
{
    if (!steps_.back().failed) {
        buffer_ = std::move(searched_from_);
        place_ = searched_place_;
        end_search();
        return rl_done::yes;
    }
    while (steps_.back().failed)
        take_back_step();
    return rl_done::yes;
}

void rl_line::end_search()
{
    if (!pattern_.empty())
        last_pattern_ = pattern_;
    steps_.clear();
    pass(nullptr);
}

std::string_view rl_line::entry_text(size_t entry) const
{
    if (entry == place_)
        return text();
    return entry < history_->size() ? history_->entry(entry) : std::string_view{outside_.text()};
}

/// Looks for the pattern from `step` on and moves it there. `beyond`: not where it is already.
bool rl_line::find(search_step &step, bool beyond) const
{
    const size_t last = history_->size();
    size_t entry = step.entry;
    size_t from = step.at;
    bool anywhere = false; // in the entry
    if (beyond && !step.backward)
        ++from;
    if (beyond && step.backward && from-- == 0) {
        if (entry-- == 0)
            return false;
        anywhere = true;
    }
    for (;;) {
        const std::string_view text = entry_text(entry);
        const size_t at = step.backward ? text.rfind(pattern_, anywhere ? std::string::npos : from)
                                        : text.find(pattern_, anywhere ? 0 : from);
        if (at != std::string::npos) {
            step.entry = entry;
            step.at = at;
            return true;
        }
        if (entry == (step.backward ? 0 : last))
            return false;
        entry = step.backward ? entry - 1 : entry + 1;
        anywhere = true;
    }
}

rl_done rl_line::show(const search_step &step)
{
    if (step.failed)
        return rl_done::refused;
    if (step.entry != place_)
        go_to(step.entry);
    // What was changed in an entry is lost when the search leaves it; it may be shorter then.
    buffer_.place(std::min(step.at, text().size()));
    return rl_done::yes;
}

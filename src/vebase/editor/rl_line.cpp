#include "vebase/editor/rl_line.h"

#include <cctype>
#include <cwchar>
#include <cwctype>
#include <utility>

#include "vebase/editor/rl_complete.h"
#include "vebase/editor/rl_text.h"

namespace
{

constexpr size_t cuts_max = 32;
constexpr size_t pattern_max = 1024;

bool is_blank(wchar_t c)
{
    return c == L' ' || c == L'\t' || c == L'\n';
}

/// Words end at the dots of a path and at "=".
bool is_word(wchar_t c)
{
    return c >= 0x80 ? iswspace(static_cast<wint_t>(c)) == 0
                     : isalnum(static_cast<int>(c)) != 0 || wcschr(L"*?_-[]~", c) != nullptr;
}

bool is_cut(rl_op op)
{
    return op == rl_op::cut_end || op == rl_op::cut_start || op == rl_op::cut_blank_word ||
           op == rl_op::cut_word_left || op == rl_op::cut_word_right;
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
    last_ = rl_op::none;
}

void rl_line::pass(rl_op op)
{
    before_ = std::exchange(last_, op);
}

rl_done rl_line::apply(rl_key key)
{
    bool refused = false;
    if (searching() && search_key(key, &refused))
        return refused ? rl_done::refused : rl_done::yes;
    pass(key.op);
    switch (key.op) {
    case rl_op::enter:
    case rl_op::complete:
    case rl_op::clear:
        return rl_done::yours;
    case rl_op::end_of_file:
        if (text().empty())
            return rl_done::yours;
        return edit(rl_op::remove) ? rl_done::yes : rl_done::refused;
    case rl_op::insert:
    case rl_op::paste:
        buffer_.type(key.c, key.op == rl_op::paste);
        return rl_done::yes;
    default:
        return edit(key.op) ? rl_done::yes : rl_done::refused;
    }
}

/// What changes the line, or its place in the history. False when there is nothing to be done.
bool rl_line::edit(rl_op op)
{
    const size_t at = cursor();
    const size_t size = text().size();
    switch (op) {
    case rl_op::left:
        return at > 0 && move(at - 1);
    case rl_op::right:
        return at < size && move(at + 1);
    case rl_op::word_left:
        return move(word_left());
    case rl_op::word_right:
        return move(word_right());
    case rl_op::start:
        return move(0);
    case rl_op::end:
        return move(size);
    case rl_op::rub:
        return at > 0 && remove(at - 1, at);
    case rl_op::remove:
        return at < size && remove(at, at + 1);
    case rl_op::cut_end:
        return cut(at, size);
    case rl_op::cut_start:
        return cut(0, at);
    case rl_op::cut_blank_word: {
        size_t first = at;
        while (first > 0 && is_blank(text()[first - 1]))
            --first;
        while (first > 0 && !is_blank(text()[first - 1]))
            --first;
        return cut(first, at);
    }
    case rl_op::cut_word_left:
        return cut(word_left(), at);
    case rl_op::cut_word_right:
        return cut(at, word_right());
    case rl_op::yank:
        return yank();
    case rl_op::yank_older:
        return yank_older();
    case rl_op::undo:
        return buffer_.undo();
    case rl_op::swap:
        return swap();
    case rl_op::upper:
        return change_case([](wint_t c, bool) { return towupper(c); });
    case rl_op::lower:
        return change_case([](wint_t c, bool) { return towlower(c); });
    case rl_op::capital:
        return change_case([](wint_t c, bool first) { return first ? towupper(c) : towlower(c); });
    case rl_op::last_word:
        return insert_last_word();
    case rl_op::older:
        if (place_ == 0)
            return false;
        go_to(place_ - 1);
        return true;
    case rl_op::newer:
        if (place_ >= history_->size())
            return false;
        go_to(place_ + 1);
        return true;
    case rl_op::search_back:
    case rl_op::search_forward:
        begin_search(op == rl_op::search_back);
        return true;
    default:
        return true;
    }
}

bool rl_line::move(size_t cursor)
{
    buffer_.place(cursor);
    return true;
}

bool rl_line::remove(size_t first, size_t last)
{
    buffer_.replace(first, last, {});
    return true;
}

/// Cuts in a row make one piece.
bool rl_line::cut(size_t first, size_t last)
{
    if (first == last)
        return false;
    const std::wstring piece = text().substr(first, last - first);
    if (is_cut(before_) && !cuts_.empty())
        cuts_.back().insert(last == cursor() ? 0 : cuts_.back().size(), piece);
    else
        cuts_.push_back(piece);
    if (cuts_.size() > cuts_max)
        cuts_.erase(cuts_.begin());
    return remove(first, last);
}

bool rl_line::yank()
{
    if (cuts_.empty())
        return false;
    yanked_ = cuts_.size() - 1;
    inserted_at_ = cursor();
    insert(cuts_.back());
    return true;
}

bool rl_line::yank_older()
{
    if (before_ != rl_op::yank && before_ != rl_op::yank_older)
        return false;
    yanked_ = (yanked_ > 0 ? yanked_ : cuts_.size()) - 1;
    replace_typed(inserted_at_, cuts_[yanked_]);
    return true;
}

bool rl_line::insert_last_word()
{
    const bool again = repeated();
    for (size_t entry = again ? word_entry_ : place_; entry > 0;) {
        const std::string_view word = rl_last_word(history_->entry(--entry));
        if (word.empty())
            continue;
        if (!again)
            inserted_at_ = cursor();
        word_entry_ = entry;
        replace_typed(inserted_at_, rl_widen(word));
        return true;
    }
    return false;
}

/// The characters around the cursor; at the end of the line the last two.
bool rl_line::swap()
{
    const size_t second = buffer_.at_end() ? cursor() - 1 : cursor();
    if (cursor() == 0 || second == 0)
        return false;
    const wchar_t swapped[] = {text()[second], text()[second - 1]};
    buffer_.replace(second - 1, second + 1, {swapped, 2});
    return true;
}

template <class Case> bool rl_line::change_case(const Case &change)
{
    const size_t last = word_right();
    if (last == cursor())
        return false;
    std::wstring word = text().substr(cursor(), last - cursor());
    bool first = true;
    for (wchar_t &c : word) {
        if (!is_word(c))
            continue;
        c = static_cast<wchar_t>(change(static_cast<wint_t>(c), first));
        first = false;
    }
    buffer_.replace(cursor(), last, word);
    return true;
}

size_t rl_line::word_left() const
{
    size_t at = cursor();
    while (at > 0 && !is_word(text()[at - 1]))
        --at;
    while (at > 0 && is_word(text()[at - 1]))
        --at;
    return at;
}

size_t rl_line::word_right() const
{
    size_t at = cursor();
    while (at < text().size() && !is_word(text()[at]))
        ++at;
    while (at < text().size() && is_word(text()[at]))
        ++at;
    return at;
}

/// Makes the line that entry of the history, or what it was outside the history. What was changed in an entry is lost.
void rl_line::go_to(size_t entry)
{
    const size_t newest = history_->size();
    if (place_ >= newest)
        outside_ = std::move(buffer_);
    place_ = entry;
    if (entry >= newest)
        buffer_ = std::move(outside_);
    else
        buffer_.assign(rl_widen(history_->entry(entry)));
    buffer_.place(text().size());
}

// --- the search ---

std::wstring rl_line::search_message() const
{
    const search_step &step = steps_.back();
    return (step.backward ? L"bck" : L"fwd") + std::wstring{step.failed ? L"?" : L":"} + pattern_;
}

void rl_line::begin_search(bool backward)
{
    searched_from_ = buffer_;
    searched_place_ = place_;
    pattern_.clear();
    steps_.push_back({backward, false, 0, place_, rl_narrow_size(std::wstring_view{text()}.substr(0, cursor()))});
}

/// A key while it searches. False when it ended the search and is to be applied to what that found.
bool rl_line::search_key(rl_key key, bool *refused)
{
    switch (key.op) {
    case rl_op::insert:
    case rl_op::paste:
        *refused = !extend_pattern(key.c);
        return true;
    case rl_op::search_back:
    case rl_op::search_forward:
        *refused = !search_again(key.op == rl_op::search_back);
        return true;
    case rl_op::rub:
        *refused = !take_back_step();
        return true;
    case rl_op::cancel:
        cancel_search();
        return true;
    case rl_op::escape:
        end_search();
        return true;
    default:
        end_search();
        return false;
    }
}

bool rl_line::extend_pattern(wchar_t c)
{
    if (pattern_.size() >= pattern_max)
        return false;
    pattern_.push_back(c);
    search_step step = steps_.back();
    step.pattern = pattern_.size();
    // What is not there will not be there with more behind it.
    if (!step.failed)
        step.failed = !find(step, false);
    steps_.push_back(step);
    show(step);
    return !step.failed;
}

bool rl_line::search_again(bool backward)
{
    search_step step = steps_.back();
    if (step.failed && step.backward == backward)
        return false;
    if (pattern_.empty())
        pattern_ = last_pattern_;
    step.backward = backward;
    step.pattern = pattern_.size();
    step.failed = !pattern_.empty() && !find(step, true);
    steps_.push_back(step);
    show(step);
    return !step.failed;
}

bool rl_line::take_back_step()
{
    if (steps_.size() == 1)
        return false;
    steps_.pop_back();
    pattern_.resize(steps_.back().pattern);
    show(steps_.back());
    return true;
}

/// Back to what was found last, or to the line that was searched from.
void rl_line::cancel_search()
{
    if (steps_.back().failed) {
        while (steps_.back().failed)
            take_back_step();
        return;
    }
    buffer_ = std::move(searched_from_);
    place_ = searched_place_;
    end_search();
}

void rl_line::end_search()
{
    if (!pattern_.empty())
        last_pattern_ = pattern_;
    steps_.clear();
    last_ = rl_op::none;
}

std::string rl_line::entry_text(size_t entry) const
{
    if (entry == place_)
        return rl_narrow(text());
    return entry < history_->size() ? std::string{history_->entry(entry)} : rl_narrow(outside_.text());
}

/// Looks for the pattern from `step` on and moves it there. `beyond`: not where it is already.
bool rl_line::find(search_step &step, bool beyond) const
{
    const std::string wanted = rl_narrow(pattern_);
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
        const std::string text = entry_text(entry);
        const size_t at = step.backward ? text.rfind(wanted, anywhere ? std::string::npos : from)
                                        : text.find(wanted, anywhere ? 0 : from);
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

void rl_line::show(const search_step &step)
{
    if (step.failed)
        return;
    if (step.entry != place_)
        go_to(step.entry);
    buffer_.place(rl_widen(entry_text(step.entry).substr(0, step.at)).size());
}

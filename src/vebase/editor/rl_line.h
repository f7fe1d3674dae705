// Editing a line: what each key does to it, the history it stands in, what was cut, and the search through the history.
// Without a terminal; what needs one is left to the caller.
#pragma once

#include <cwctype>
#include <string>
#include <string_view>
#include <vector>

#include "base/utf8.h"
#include "platform/ve_history.h"
#include "vebase/editor/rl_buffer.h"
#include "vebase/editor/rl_keys.h"

/// What became of a key.
enum class rl_done {
    yes,
    refused,  ///< there was nothing to be done
    enter,    ///< this and what follows is the caller's to do
    end,      ///< of the input
    complete, ///< the word at the cursor
    clear     ///< the screen
};

class rl_line
{
public:
    /// Begins a line behind the newest entry of `history` (borrowed until the next line): an empty one, or with the
    /// text of the one before.
    void begin(const ve_history &history, bool keep_text);
    rl_done apply(const rl_key &key);
    /// A key was used for something else.
    void pass(rl_op op);
    /// The key before the one that was applied last did the same.
    bool repeated() const { return before_ == last_; }

    const std::string &text() const { return buffer_.text(); }
    size_t cursor() const { return buffer_.cursor(); }
    bool at_end() const { return buffer_.at_end(); }
    void insert(std::string_view text) { buffer_.replace(cursor(), cursor(), text); }
    /// Puts `with` in the place of the bytes [first, cursor).
    void replace_typed(size_t first, std::string_view with) { buffer_.replace(first, cursor(), with); }

    bool searching() const { return !steps_.empty(); }
    /// What is shown below the line while it searches.
    std::string search_message() const;

    // What keys do (rl_keys.cpp).
    rl_done enter() { return rl_done::enter; }
    rl_done complete() { return rl_done::complete; }
    rl_done clear() { return rl_done::clear; }
    rl_done cancel() { return rl_done::yes; } // of a search; there is none
    rl_done left() { return go(cursor() > 0, before()); }
    rl_done right() { return go(!at_end(), behind()); }
    rl_done to_word_left() { return go(true, word_left()); }
    rl_done to_word_right() { return go(true, word_right()); }
    rl_done to_start() { return go(true, 0); }
    rl_done to_end() { return go(true, text().size()); }
    rl_done rub() { return cursor() > 0 ? change(before(), cursor(), {}) : rl_done::refused; }
    rl_done remove() { return at_end() ? rl_done::refused : change(cursor(), behind(), {}); }
    rl_done remove_or_end() { return text().empty() ? rl_done::end : remove(); }
    rl_done cut_end() { return cut(cursor(), text().size()); }
    rl_done cut_start() { return cut(0, cursor()); }
    rl_done cut_blank_word();
    rl_done cut_word_left() { return cut(word_left(), cursor()); }
    rl_done cut_word_right() { return cut(cursor(), word_right()); }
    rl_done yank();
    rl_done yank_older();
    rl_done undo() { return buffer_.undo() ? rl_done::yes : rl_done::refused; }
    rl_done swap();
    rl_done upper() { return change_case(towupper, towupper); }
    rl_done lower() { return change_case(towlower, towlower); }
    rl_done capital() { return change_case(towupper, towlower); }
    rl_done last_word();
    rl_done older() { return place_ > 0 ? go_to(place_ - 1) : rl_done::refused; }
    rl_done newer() { return place_ < history_->size() ? go_to(place_ + 1) : rl_done::refused; }
    rl_done search_back() { return begin_search(true); }
    rl_done search_forward() { return begin_search(false); }

private:
    struct search_step {
        bool backward;
        bool failed;
        size_t pattern; ///< bytes of the pattern
        size_t entry;   ///< where it was found: entry of the history, ...
        size_t at;      ///< ... byte in it
    };

    rl_done go(bool possible, size_t cursor);
    rl_done change(size_t first, size_t last, std::string_view with);
    rl_done cut(size_t first, size_t last);
    rl_done change_case(wint_t (*first)(wint_t), wint_t (*others)(wint_t));
    /// Where the characters around the cursor begin and end.
    size_t before() const { return cursor() - utf8_last({text().data(), cursor()}).size; }
    size_t behind() const { return cursor() + utf8_first({text().data() + cursor(), text().size() - cursor()}).size; }
    size_t word_left() const;
    size_t word_right() const;
    rl_done go_to(size_t entry);

    rl_done begin_search(bool backward);
    bool search_key(const rl_key &key, rl_done *done);
    rl_done search_again(bool backward);
    rl_done extend_pattern(std::string_view character);
    rl_done take_back_step();
    rl_done cancel_search();
    void end_search();
    std::string_view entry_text(size_t entry) const;
    bool find(search_step &step, bool beyond) const;
    rl_done show(const search_step &step);

    const ve_history *history_ = nullptr;
    rl_buffer buffer_;
    rl_op last_ = nullptr;
    rl_op before_ = nullptr;
    bool cutting_ = false; // the key that is being applied has cut something
    bool after_cut_ = false;
    rl_op inserting_ = nullptr;    // it has inserted what the same key, or Alt-Y, replaces
    rl_op after_insert_ = nullptr; // the key before did

    size_t place_ = 0;  // the entry that the line was, or the size of the history
    rl_buffer outside_; // the line outside the history, while place_ is in it

    std::vector<std::string> cuts_; // newest last
    size_t yanked_ = 0;             // the one that was inserted last
    size_t inserted_at_ = 0;        // where it, or the last word, begins
    size_t word_entry_ = 0;         // the entry that the word came from

    std::vector<search_step> steps_; // empty: no search
    std::string pattern_;
    std::string last_pattern_;
    rl_buffer searched_from_;
    size_t searched_place_ = 0;
};

// Editing a line: what each key does to it, the history it stands in, what was cut, and the search through the history.
// Without a terminal; what needs one is left to the caller.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "platform/ve_history.h"
#include "vebase/editor/rl_buffer.h"
#include "vebase/editor/rl_keys.h"

/// What became of a key.
enum class rl_done {
    yes,
    refused, ///< nothing there to be done
    yours    ///< enter, complete, clear, end_of_file on an empty line: the caller's
};

class rl_line
{
public:
    /// Begins a line behind the newest entry of `history` (borrowed until the next line): an empty one, or with the
    /// text of the one before.
    void begin(const ve_history &history, bool keep_text);
    const std::wstring &text() const { return buffer_.text(); }
    size_t cursor() const { return buffer_.cursor(); }
    bool at_end() const { return buffer_.at_end(); }

    rl_done apply(rl_key key);
    /// A key was used for something else.
    void pass(rl_op op);
    /// The key before the one that is being applied did the same.
    bool repeated() const { return before_ == last_; }
    void insert(std::wstring_view text) { buffer_.replace(cursor(), cursor(), text); }
    /// Puts `with` in the place of the characters [first, cursor).
    void replace_typed(size_t first, std::wstring_view with) { buffer_.replace(first, cursor(), with); }

    bool searching() const { return !steps_.empty(); }
    /// What is shown below the line while it searches.
    std::wstring search_message() const;

private:
    struct search_step {
        bool backward;
        bool failed;
        size_t pattern; ///< characters of the pattern
        size_t entry;   ///< where it was found: entry of the history, ...
        size_t at;      ///< ... byte in it
    };

    bool edit(rl_op op);
    bool move(size_t cursor);
    bool remove(size_t first, size_t last);
    bool cut(size_t first, size_t last);
    bool yank();
    bool yank_older();
    bool insert_last_word();
    bool swap();
    template <class Case> bool change_case(const Case &change);
    size_t word_left() const;
    size_t word_right() const;
    void go_to(size_t entry);

    void begin_search(bool backward);
    bool search_key(rl_key key, bool *refused);
    bool search_again(bool backward);
    bool extend_pattern(wchar_t c);
    bool take_back_step();
    void cancel_search();
    void end_search();
    std::string entry_text(size_t entry) const;
    bool find(search_step &step, bool beyond) const;
    void show(const search_step &step);

    const ve_history *history_ = nullptr;
    rl_buffer buffer_;
    rl_op last_ = rl_op::none;
    rl_op before_ = rl_op::none;

    size_t place_ = 0;  // the entry that the line was, or the size of the history
    rl_buffer outside_; // the line outside the history, while place_ is in it

    std::vector<std::wstring> cuts_; // newest last
    size_t yanked_ = 0;              // the one that was inserted last
    size_t inserted_at_ = 0;         // where it, or the last word, begins
    size_t word_entry_ = 0;          // the entry that the last word came from

    std::vector<search_step> steps_; // empty: no search
    std::wstring pattern_;
    std::wstring last_pattern_;
    rl_buffer searched_from_;
    size_t searched_place_ = 0;
};

#include "vebase/editor/rl_buffer.h"

void rl_buffer::assign(std::string text)
{
    text_ = std::move(text);
    cursor_ = text_.size();
    changes_.clear();
    typing_ = false;
}

void rl_buffer::place(size_t cursor)
{
    cursor_ = cursor;
    typing_ = false;
}

void rl_buffer::replace(size_t first, size_t last, std::string_view with)
{
    changes_.push_back({first, with.size(), text_.substr(first, last - first), cursor_});
    text_.replace(first, last - first, with);
    cursor_ = first + with.size();
    typing_ = false;
}

void rl_buffer::type(std::string_view character, bool pasted)
{
    const bool begins_word = !pasted && cursor_ > 0 && text_[cursor_ - 1] == ' ' && character != " ";
    if (typing_ && !begins_word) {
        text_.insert(cursor_, character);
        cursor_ += character.size();
        changes_.back().inserted += character.size();
    } else {
        replace(cursor_, cursor_, character);
        typing_ = true;
    }
}

bool rl_buffer::undo()
{
    if (changes_.empty())
        return false;
    const change &last = changes_.back();
    text_.replace(last.at, last.inserted, last.removed);
    cursor_ = last.cursor;
    changes_.pop_back();
    typing_ = false;
    return true;
}

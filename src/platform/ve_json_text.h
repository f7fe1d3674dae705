// JSON read where it stands: a text is checked once as a whole, then its values are pieces of it, and only what
// somebody wants as a value becomes one. What is accepted, and what the pieces hold, is what Jansson would read.
#pragma once

#include <jansson.h>

#include <optional>
#include <string>
#include <string_view>

#include "base/json_bloat.h"

/// Whether `text` is one JSON value, scalars too: UTF-8, texts with "\u0000" (but no names), integers of 64 bits, reals
/// that are finite, at most 2048 levels.
bool json_text_check(std::string_view text);

/// One value of a checked text, borrowed from it; or none.
class json_piece
{
public:
    json_piece() = default;
    /// The value that `checked` holds, with or without blanks around it.
    explicit json_piece(std::string_view checked);

    explicit operator bool() const { return !text_.empty(); }
    bool is_object() const { return text_.starts_with('{'); }
    bool is_array() const { return text_.starts_with('['); }
    bool is_string() const { return text_.starts_with('"'); }
    bool is_null() const { return text_.starts_with('n'); }
    /// The value as it is written: alike texts are equal values.
    std::string_view text() const { return text_; }

    /// An object's member, the last one of that name; none of anything else.
    json_piece member(std::string_view name) const;
    /// What a string holds, NUL bytes too; nothing of anything else. Kept in `*room` when it is written with escapes.
    std::optional<std::string_view> string(std::string *room) const;
    /// A new Jansson value; null for none, and for one that would be bloated.
    json_t *load() const;
    /// Appends the value as Jansson writes it (JSON_ENCODE_ANY); nothing for none.
    void append_to(std::string *out) const;

private:
    friend class json_walk;
    std::string_view text_;
};

/// Goes through the members of an object or the elements of an array, in the text's order; through nothing of anything
/// else. A name that is given twice comes twice.
class json_walk
{
public:
    explicit json_walk(json_piece container);
    bool next();
    /// True for a member that is called so.
    bool is(std::string_view name) const;
    json_piece value() const { return value_; }

private:
    const char *at_ = nullptr; // behind the last value
    const char *end_ = nullptr;
    bool object_ = false;
    json_piece name_;
    json_piece value_;
};

/// An entry of a ParameterList: its name (the bytes of the string, without a value when there is none) and the members
/// that such entries have, none where they are missing.
struct ve_parameter {
    std::optional<std::string_view> name;
    json_piece value;      ///< "Value"
    json_piece attributes; ///< "Attributes": mostly one of few texts, by which they can be shared
    json_piece pattern;    ///< "Template": a ParameterList itself
};

/// Reads a ParameterList entry by entry. The list's text must outlive it.
class ve_parameters
{
public:
    explicit ve_parameters(json_piece list)
        : size_(list.text().size()), elements_(list.is_array() ? list : json_piece())
    {
    }
    /// The bytes that the whole list is written in.
    size_t size() const { return size_; }
    /// Whether no entry is left.
    bool empty() const { return !json_walk(elements_).next(); }
    /// The next entry, an empty one for an element that is no object; false at the end. The name before is gone then.
    bool next(ve_parameter *entry);

private:
    size_t size_;
    json_walk elements_;
    std::string room_;
};

// Paths of the data model.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// A path from the root down: names joined by dots, without one at either end; empty is the root. A value.
class dm_path
{
public:
    /// Bytes. What is longer is no place to stand at.
    static constexpr size_t size_max = 256;

    dm_path() = default;
    /// As the daemon spells it, with or without the final dot; "." is the root.
    explicit dm_path(std::string_view spelled) : text_(without_dot(spelled)) {}
    bool operator==(const dm_path &) const = default;

    bool is_root() const { return text_.empty(); }
    const std::string &text() const { return text_; }
    const char *c_str() const { return text_.c_str(); }
    std::string_view last() const { return last_of(text_); }
    /// As the daemon spells objects: "Device.Hosts.", "." for the root.
    std::string as_object() const { return text_ + '.'; }

    /// Down to `name`, which may be a part of this very path. False, and nothing moves, when that would be too long.
    bool push(std::string_view name);
    /// Up; at the root it stays.
    void pop();

    /// Whether `spelled`, with or without its final dot, is this path.
    bool is(std::string_view spelled) const { return without_dot(spelled) == text_; }
    /// `spelled` without this path and the dot behind it, as far as they are there.
    std::string_view relative(std::string_view spelled) const;

    /// What stands behind the last dot.
    static std::string_view last_of(std::string_view text) { return text.substr(text.rfind('.') + 1); }
    static std::string_view without_dot(std::string_view spelled)
    {
        return spelled.substr(0, spelled.size() - (spelled.ends_with('.') ? 1 : 0));
    }
    /// Cuts the first name, which may be empty, off `*rest`.
    static std::string_view cut_name(std::string_view *rest);
    /// An instance number: digits only, 1 to 4294967295.
    static bool is_instance(std::string_view name);

private:
    std::string text_;
};

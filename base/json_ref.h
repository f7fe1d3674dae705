// The owner of a JSON value: one reference, given back when the owner goes.
#pragma once

#include <jansson.h>

#include <utility>

/// Owns one reference to a JSON value, or nothing. Move-only. A raw `json_t *` elsewhere is always borrowed.
class json_ref
{
public:
    json_ref() = default;
    /// Takes over the reference that `value` is (null for none).
    explicit json_ref(json_t *value) : value_(value) {}
    json_ref(json_ref &&other) noexcept : value_(std::exchange(other.value_, nullptr)) {}
    json_ref &operator=(json_ref &&other) noexcept
    {
        reset(std::exchange(other.value_, nullptr));
        return *this;
    }
    json_ref(const json_ref &) = delete;
    json_ref &operator=(const json_ref &) = delete;
    ~json_ref() { json_decref(value_); }

    /// A further reference to a value that somebody else owns.
    static json_ref share(json_t *value) { return json_ref(json_incref(value)); }

    json_t *get() const { return value_; }
    explicit operator bool() const { return value_ != nullptr; }
    /// Gives the reference away; the owner then holds nothing.
    [[nodiscard]] json_t *release() { return std::exchange(value_, nullptr); }
    void reset(json_t *value = nullptr) { json_decref(std::exchange(value_, value)); }

private:
    json_t *value_ = nullptr;
};

// Reading the small text files in which the kernel shows its state. None of this fails loudly: what cannot be read is
// empty, what cannot be understood is left out.
#pragma once

#include <jansson.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace veld
{

/// The content of a file, at most `limit` bytes; empty when it cannot be read. Never waits: no FIFO, no device.
std::string read_sysfile(const char *path, size_t limit = size_t{4} << 20);

/// To be told when something of the machine cannot be seen for want of descriptors or memory, by errno; other errors
/// count for nothing: what is not there is not there.
void sysfile_failed(int error);
/// Whether that happened since this was last asked.
bool sysfile_take_failure();

/// Takes the next line, without its line feed, off the front of `*text`. False at the end.
bool next_line(std::string_view *text, std::string_view *line);
/// Takes the next word between blanks off the front of `*line`; empty at the end.
std::string_view next_word(std::string_view *line);
/// A number, or 0.
int64_t number_or_zero(std::string_view word);

/// A text value of at most `limit` bytes; bytes that are not UTF-8 become "?". New reference.
json_t *json_clean_text(std::string_view text, size_t limit = 4096);

/// A row of a live table under construction.
class live_row
{
public:
    explicit live_row(std::string_view key) : row_(json_object()) { set("#key", key); }
    live_row &set(const char *field, std::string_view text);
    live_row &set(const char *field, const char *text) { return set(field, std::string_view(text)); }
    live_row &set(const char *field, int64_t number);
    live_row &set(const char *field, bool truth);
    /// Takes over `array`.
    live_row &nested(const char *table, json_t *array);
    /// Appends the row to `rows`; the builder is then spent.
    void add_to(json_t *rows) { json_array_append_new(rows, row_); }

private:
    json_t *row_;
};

} // namespace veld

#include "base/framing.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace
{

constexpr size_t read_room = 4096;
constexpr size_t kept_capacity = size_t{256} << 10;

struct line_writer {
    std::string *out;
    size_t end_max; ///< where the line ends at the latest
};

/// As realloc, without fail.
char *allocate(char *memory, size_t size)
{
    auto *grown = static_cast<char *>(realloc(memory, size));
    if (grown == nullptr) {
        // The program's own end, with its text.
        if (const std::new_handler end = std::get_new_handler())
            end();
        abort();
    }
    return grown;
}

/// Refuses what no longer fits, so that a value which is too long is not written out first.
int append_to_line(const char *data, size_t size, void *writer)
{
    const auto *line = static_cast<line_writer *>(writer);
    if (size > line->end_max - line->out->size())
        return -1;
    line->out->append(data, size);
    return 0;
}

} // namespace

wire_reader::~wire_reader()
{
    free(data_);
}

char *wire_reader::prepare(size_t *room)
{
    if (begin_ == end_ && capacity_ > kept_capacity)
        clear();
    if (capacity_ - end_ < read_room) {
        // Moving what is left costs no more than was taken since the last move; otherwise the buffer doubles.
        if (begin_ > 0 && begin_ >= end_ - begin_ && capacity_ - (end_ - begin_) >= read_room) {
            memmove(data_, data_ + begin_, end_ - begin_);
            scanned_ -= begin_;
            end_ -= begin_;
            begin_ = 0;
        } else {
            capacity_ = std::max(capacity_ * 2, 2 * read_room);
            data_ = allocate(data_, capacity_);
        }
    }
    *room = capacity_ - end_;
    return data_ + end_;
}

void wire_reader::commit(size_t count)
{
    end_ += count;
}

wire_reader::state wire_reader::next(std::string_view *line)
{
    while (scanned_ < end_) {
        auto *feed = static_cast<char *>(memchr(data_ + scanned_, '\n', end_ - scanned_));
        if (feed == nullptr) {
            scanned_ = end_;
            break;
        }
        const size_t start = begin_;
        const auto stop = static_cast<size_t>(feed - data_);
        begin_ = scanned_ = stop + 1;
        size_t length = stop - start;
        if (length > 0 && data_[stop - 1] == '\r')
            --length;
        if (length > wire_line_max)
            return state::too_long;
        if (length > 0) {
            *line = std::string_view(data_ + start, length);
            return state::line;
        }
    }
    if (begin_ == end_)
        begin_ = scanned_ = end_ = 0;
    return end_ - begin_ > wire_line_max + 1 ? state::too_long : state::more;
}

wire_memory wire_reader::release(std::string_view *line)
{
    // What was received behind the line is moved, or the line, whichever is less.
    const std::string_view rest(data_ + begin_, end_ - begin_);
    const std::string_view less = std::min(rest, *line, [](auto a, auto b) { return a.size() < b.size(); });
    const size_t capacity = less.size() + read_room;
    char *moved = allocate(nullptr, capacity);
    memcpy(moved, less.data(), less.size());
    if (less.data() != rest.data()) {
        *line = {moved, less.size()};
        return wire_memory(moved);
    }
    begin_ = scanned_ = 0;
    end_ = rest.size();
    capacity_ = capacity;
    return wire_memory(std::exchange(data_, moved));
}

void wire_reader::clear()
{
    free(data_);
    data_ = nullptr;
    capacity_ = begin_ = scanned_ = end_ = 0;
}

json_t *wire_decode(std::string_view line)
{
    json_t *value = json_loadb(line.data(), line.size(), JSON_ALLOW_NUL, nullptr);
    if (!json_is_object(value)) {
        json_decref(value);
        return nullptr;
    }
    return value;
}

int wire_encode(const json_t *message, std::string *out)
{
    const size_t before = out->size();
    line_writer line = {.out = out, .end_max = before + wire_line_max};
    if (json_dump_callback(message, append_to_line, &line, JSON_COMPACT) != 0) {
        out->resize(before);
        return -1;
    }
    out->push_back('\n');
    return 0;
}

// One message is one line: JSON objects as UTF-8, each followed by a line feed. Shared by the client and the daemon.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

/// The longest line, in bytes without its line feed, that either side accepts.
inline constexpr size_t wire_line_max = size_t{64} << 20;

struct wire_free {
    void operator()(char *memory) const { free(memory); }
};
/// The memory that a line stands in when it is out of its reader.
using wire_memory = std::unique_ptr<char, wire_free>;

/// Collects received bytes and cuts them into lines. The buffer doubles as it grows, gives its memory back after a
/// large line, and looks at every byte once, however the bytes are chunked. Not thread-safe.
class wire_reader
{
public:
    enum class state {
        line,    ///< a line was taken
        more,    ///< no complete line is there; read more bytes
        too_long ///< the line under way is over the limit: close the link
    };

    wire_reader() = default;
    wire_reader(const wire_reader &) = delete;
    wire_reader &operator=(const wire_reader &) = delete;
    ~wire_reader();

    /// Room for the next read: at least 4096 bytes; `*room` receives how many. Invalidates lines taken before.
    char *prepare(size_t *room);
    /// Says that `count` bytes were stored at the place that prepare() gave.
    void commit(size_t count);
    /// The next line, without its line feed and a CR before it; empty lines are passed over. The view holds until the
    /// next call of prepare() or clear().
    state next(std::string_view *line);
    /// Gives the line that was taken last away; `*line`, which may move, then stands in what is returned.
    wire_memory release(std::string_view *line);
    /// Forgets everything received.
    void clear();
    /// True when bytes of an unfinished or untaken line are held.
    bool pending() const { return end_ > begin_; }

private:
    char *data_ = nullptr;
    size_t capacity_ = 0;
    size_t begin_ = 0;   // first byte not yet taken
    size_t scanned_ = 0; // bytes before this hold no line feed
    size_t end_ = 0;     // one past the last received byte
};

/// The JSON object that a line holds, as a new reference; null when the line is no JSON object, is not UTF-8, or nests
/// deeper than 2048. Texts may hold NUL.
json_t *wire_decode(std::string_view line);

/// Appends `message` to `*out` as one compact line with its line feed. Returns 0, or -1 when the message cannot be
/// encoded or is longer than a line may be; `*out` is then as it was.
int wire_encode(const json_t *message, std::string *out);

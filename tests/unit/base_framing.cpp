#include "base/framing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "base/json_ref.h"

namespace
{

using state = wire_reader::state;

void put(wire_reader *reader, std::string_view bytes)
{
    while (!bytes.empty()) {
        size_t room = 0;
        char *place = reader->prepare(&room);
        ASSERT_GE(room, 4096U);
        const size_t count = std::min(room, bytes.size());
        memcpy(place, bytes.data(), count);
        reader->commit(count);
        bytes.remove_prefix(count);
    }
}

std::vector<std::string> lines_of(wire_reader *reader)
{
    std::vector<std::string> lines;
    std::string_view line;
    while (reader->next(&line) == state::line)
        lines.emplace_back(line);
    return lines;
}

} // namespace

TEST(WireReader, CutsTheSameLinesHoweverTheBytesAreChunked)
{
    const std::string bytes = "{\"a\":1}\n\r\n\n{\"b\":\"x\\r\"}\r\n" + std::string(10000, 'y') + "\n{}\n";
    const std::vector<std::string> expected = {"{\"a\":1}", "{\"b\":\"x\\r\"}", std::string(10000, 'y'), "{}"};
    for (const size_t chunk : {size_t{1}, size_t{2}, size_t{7}, size_t{4096}, bytes.size()}) {
        wire_reader reader;
        std::vector<std::string> lines;
        for (size_t at = 0; at < bytes.size(); at += chunk) {
            put(&reader, std::string_view(bytes).substr(at, chunk));
            for (std::string &line : lines_of(&reader))
                lines.push_back(std::move(line));
        }
        EXPECT_EQ(lines, expected) << "chunks of " << chunk;
        EXPECT_FALSE(reader.pending());
    }
}

TEST(WireReader, KeepsAnUnfinishedLineAcrossManyTakenOnes)
{
    wire_reader reader;
    std::string tail;
    for (int i = 0; i < 20000; ++i) {
        put(&reader, std::to_string(i) + " one\n" + std::to_string(i) + " half");
        std::string_view line;
        ASSERT_EQ(reader.next(&line), state::line);
        ASSERT_EQ(line, tail + std::to_string(i) + " one");
        ASSERT_EQ(reader.next(&line), state::more);
        tail = std::to_string(i) + " half";
    }
}

TEST(WireReader, GivesALineAwayAndGoesOnBehindIt)
{
    const std::string large(size_t{1} << 20, 'x');
    for (const std::string &first : {std::string("a"), large}) {
        for (const std::string &behind : {std::string(), std::string("half a line"), large}) {
            wire_reader reader;
            put(&reader, first + "\nnext\n" + behind);
            std::string_view line;
            ASSERT_EQ(reader.next(&line), state::line);
            const wire_memory memory = reader.release(&line);
            ASSERT_EQ(line.data(), memory.get());
            std::string_view following;
            ASSERT_EQ(reader.next(&following), state::line);
            EXPECT_EQ(following, "next");
            put(&reader, " ends\r\n");
            ASSERT_EQ(reader.next(&following), state::line);
            EXPECT_EQ(following, behind + " ends");
            EXPECT_EQ(line, first);
        }
    }
}

TEST(WireReader, RefusesALineOverTheLimitBeforeItEnds)
{
    wire_reader reader;
    std::string_view line;
    const std::string piece(size_t{1} << 20, 'z');
    for (size_t sent = 0; sent < wire_line_max; sent += piece.size()) {
        put(&reader, piece);
        ASSERT_EQ(reader.next(&line), state::more);
    }
    put(&reader, "zz");
    EXPECT_EQ(reader.next(&line), state::too_long);
}

TEST(WireReader, RefusesALineOverTheLimitThatComesWithItsEnd)
{
    wire_reader reader;
    std::string_view line;
    put(&reader, std::string(wire_line_max + 1, 'z') + "\n{}\n");
    EXPECT_EQ(reader.next(&line), state::too_long);
}

TEST(WireReader, AcceptsALineOfExactlyTheLimit)
{
    wire_reader reader;
    std::string_view line;
    put(&reader, std::string(wire_line_max, 'z') + "\r\n{}\n");
    ASSERT_EQ(reader.next(&line), state::line);
    EXPECT_EQ(line.size(), wire_line_max);
    ASSERT_EQ(reader.next(&line), state::line);
    EXPECT_EQ(line, "{}");
}

TEST(WireDecode, TakesObjectsAlone)
{
    EXPECT_EQ(wire_decode("nonsense"), nullptr);
    EXPECT_EQ(wire_decode("[1,2]"), nullptr);
    EXPECT_EQ(wire_decode("12"), nullptr);
    EXPECT_EQ(wire_decode("{\"a\":1} {}"), nullptr);
    EXPECT_EQ(wire_decode("{\"a\":\"\xff\"}"), nullptr);
    EXPECT_EQ(wire_decode("{\"a\":9223372036854775808}"), nullptr);
    const json_ref object(wire_decode("{\"a\":\"x\\u0000y\"}"));
    ASSERT_TRUE(object);
    EXPECT_EQ(json_string_length(json_object_get(object.get(), "a")), 3U);
}

TEST(WireDecode, RefusesWhatNestsTooDeep)
{
    const auto nested = [](size_t depth) {
        return "{\"a\":" + std::string(depth - 1, '[') + std::string(depth - 1, ']') + "}";
    };
    const json_ref deep(wire_decode(nested(2048)));
    EXPECT_TRUE(deep);
    EXPECT_EQ(wire_decode(nested(2049)), nullptr);
}

TEST(WireEncode, WritesOneCompactLine)
{
    const json_ref object(json_pack("{s:s, s:[i,i]}", "text", "a\nb", "list", 1, 2));
    std::string out = "before";
    ASSERT_EQ(wire_encode(object.get(), &out), 0);
    EXPECT_EQ(out, "before{\"text\":\"a\\nb\",\"list\":[1,2]}\n");
}

TEST(WireEncode, RefusesALineOverTheLimit)
{
    const std::string text(wire_line_max, 'x');
    const json_ref object(json_pack("{s:s}", "text", text.c_str()));
    std::string out = "before";
    EXPECT_LT(wire_encode(object.get(), &out), 0);
    EXPECT_EQ(out, "before");
}

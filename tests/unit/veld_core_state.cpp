// What survives a restart, and what is said when it does not.
#include "base/file.h"
#include "veld/base/line_sink.h"
#include "veld/rpc/coalesced.h"
#include "veld/state/store.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace veld;

namespace
{

struct VeldStore : testing::Test {
    void SetUp() override { ASSERT_TRUE(store.open(folder + "/state", &error)) << error; }
    ~VeldStore() override { std::filesystem::remove_all(folder); }
    std::string path(const std::string &name) const { return folder + "/state/" + name; }
    void put(const std::string &text) const { ASSERT_TRUE(replace_file(path("a.json"), text, {})); }
    std::string refusal()
    {
        error.clear();
        return store.load("a.json", &document, &error) ? "" : error.substr(error.find("a.json"));
    }
    static std::string make_folder()
    {
        std::string name = testing::TempDir() + "veld-XXXXXX";
        return mkdtemp(name.data());
    }

    std::string folder = make_folder();
    state_store store;
    json_ref document;
    std::string error;
};

TEST_F(VeldStore, WhatIsNotThereIsNoError)
{
    EXPECT_EQ(refusal(), "");
    EXPECT_FALSE(document);
}

TEST_F(VeldStore, WhatIsSavedIsLoaded)
{
    const json_ref value{json_pack("{s:i}", "a", 7)};
    ASSERT_TRUE(store.save("a.json", value.get(), &error));
    EXPECT_EQ(refusal(), "");
    EXPECT_TRUE(json_equal(document.get(), value.get()));
    ASSERT_TRUE(store.remove("a.json", &error));
    ASSERT_TRUE(store.remove("a.json", &error));
    EXPECT_EQ(refusal(), "");
    EXPECT_FALSE(document);
}

TEST_F(VeldStore, WhatIsNotUnderstoodIsRefusedAndStays)
{
    for (const char *text : {"", "{", "{} x", "\xff", "{\"a\":1,\"a\":2}"}) {
        put(text);
        EXPECT_TRUE(refusal().starts_with("a.json: line 1: ")) << text << error;
        EXPECT_EQ(std::filesystem::file_size(path("a.json")), strlen(text));
    }
    std::filesystem::remove(path("a.json"));
    ASSERT_EQ(mkfifo(path("a.json").c_str(), 0600), 0);
    EXPECT_EQ(refusal(), "a.json: not a regular file");
    std::filesystem::remove(path("a.json"));
    std::filesystem::create_directory(path("a.json"));
    EXPECT_EQ(refusal(), "a.json: not a regular file");
}

TEST_F(VeldStore, WhatIsNoJsonIsNotSaved)
{
    const json_ref good{json_object()};
    ASSERT_TRUE(store.save("a.json", good.get(), &error)) << error;
    const json_ref bad{json_object()};
    json_object_set_new_nocheck(bad.get(), "a", json_string_nocheck("\xff"));
    EXPECT_FALSE(store.save("a.json", bad.get(), &error));
    EXPECT_EQ(error, path("a.json") + ": cannot be written as JSON");
    json_ref kept;
    EXPECT_TRUE(store.load("a.json", &kept, &error) && json_object_size(kept.get()) == 0);
}

TEST_F(VeldStore, WhatWouldBeLostIsKeptSoOften)
{
    EXPECT_TRUE(store.keep("a.json", &error)) << "there is nothing to keep";
    put("{}");
    for (int number = 1; number <= 1000; ++number)
        std::filesystem::create_directory(path("a.json.kept-" + std::to_string(number)));
    EXPECT_FALSE(store.keep("a.json", &error));
    EXPECT_EQ(error, path("a.json.kept") + ": " + strerror(EEXIST));
    std::filesystem::remove(path("a.json.kept-7"));
    EXPECT_TRUE(store.keep("a.json", &error)) << error;
    EXPECT_TRUE(std::filesystem::is_regular_file(path("a.json.kept-7")));
    state_store nowhere;
    EXPECT_TRUE(nowhere.keep("a.json", &error)) << "which ends with the process anyway";
}

TEST_F(VeldStore, WhatWasLeftOfASaveIsNotWaitedFor)
{
    const json_ref value{json_object()};
    ASSERT_EQ(mkfifo(path("a.json.new").c_str(), 0600), 0);
    EXPECT_TRUE(store.save("a.json", value.get(), &error)) << error;
    EXPECT_FALSE(std::filesystem::exists(path("a.json.new")));
    std::filesystem::create_directory(path("a.json.new"));
    EXPECT_FALSE(store.save("a.json", value.get(), &error));
}

TEST(VeldLineSink, LosesLinesThatNobodyReadsAndCountsThem)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    const fd_owner reader(ends[0]);
    line_sink sink{fd_owner(ends[1])};
    const std::string line(1000, 'x');
    for (int i = 0; i < 1000; ++i)
        sink.write(line + "\n");
    EXPECT_GT(sink.lost(), 100U);
    // What was begun is ended before anything else is written.
    std::string text;
    EXPECT_FALSE(read_all(reader.get(), SIZE_MAX, &text));
    sink.write("last\n");
    EXPECT_EQ(sink.lost(), 0U);
    EXPECT_FALSE(read_all(reader.get(), SIZE_MAX, &text));
    EXPECT_EQ(text.substr(text.size() - 6), "\nlast\n");
    EXPECT_EQ((text.size() - 5) % 1001, 0U);
}

TEST(VeldLineSink, EndsALineInAsManyPiecesAsItTakes)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK | O_CLOEXEC), 0);
    const fd_owner reader(ends[0]);
    line_sink sink{fd_owner(ends[1])};
    std::string line;
    for (int i = 0; line.size() < 200000; ++i)
        line += std::to_string(i) + " ";
    sink.write(line + "\n");
    EXPECT_EQ(sink.lost(), 0U);
    std::string text(4096, '\0'); // which makes room for as much
    ASSERT_EQ(read(reader.get(), text.data(), text.size()), 4096);
    sink.write("lost\n");
    EXPECT_EQ(sink.lost(), 1U);
    while (sink.lost() > 0) {
        std::string more;
        EXPECT_FALSE(read_all(reader.get(), SIZE_MAX, &more));
        text += more;
        sink.write("last\n");
    }
    std::string more;
    EXPECT_FALSE(read_all(reader.get(), SIZE_MAX, &more));
    EXPECT_TRUE(text + more == line + "\nlast\n");
}

TEST(VeldLineSink, WritesToAStandardErrorThatIsASocket)
{
    std::array<int, 2> pair{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.data()), 0);
    const fd_owner reader(pair[0]);
    const fd_owner writer(pair[1]);
    ASSERT_EQ(fcntl(reader.get(), F_SETFL, O_NONBLOCK), 0);
    const fd_owner before(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3));
    ASSERT_EQ(dup2(writer.get(), STDERR_FILENO), STDERR_FILENO);
    line_sink sink = line_sink::of_standard_error();
    const std::string line(100000, 'x');
    int lines = 0;
    for (; sink.lost() == 0; ++lines)
        sink.write(line + "\n");
    // What was begun is ended before anything else is written, although nobody waited for the reader.
    std::string text;
    EXPECT_FALSE(read_all(reader.get(), SIZE_MAX, &text));
    sink.write("last\n");
    EXPECT_EQ(sink.lost(), 0U);
    dup2(before.get(), STDERR_FILENO);
    EXPECT_FALSE(read_all(reader.get(), SIZE_MAX, &text));
    EXPECT_EQ(text.substr(text.size() - 6), "\nlast\n");
    EXPECT_EQ(text.size() - 5, static_cast<size_t>(lines - 1) * 100001);
}

TEST(VeldCoalescedChanges, WhatCameAndWentWasNeverThere)
{
    coalesced_changes changes;
    changes.add({"A.", 1, true, role::anonymous});
    changes.add({"A.", 2, true, role::anonymous});
    changes.add({"A.", 1, false, role::anonymous});
    changes.add({"B.", 7, false, role::user});
    changes.add({"A.", 0, false, role::anonymous});
    std::string told;
    for (const instance_change &one : changes.take())
        told += one.table + std::to_string(one.number) + (one.added ? "+" : "-") + " ";
    EXPECT_EQ(told, "A.0- A.2+ B.7- ");
    EXPECT_TRUE(changes.empty());
    changes.add({"A.", 1, true, role::anonymous});
    changes.add({"A.", 1, false, role::anonymous});
    EXPECT_TRUE(changes.empty());
}

} // namespace

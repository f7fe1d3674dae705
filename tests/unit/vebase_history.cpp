#include "platform/ve_history.h"

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

namespace
{

class history : public testing::Test
{
protected:
    history()
    {
        char name[] = "/tmp/kest-history.XXXXXX";
        directory = mkdtemp(name);
        ve_history_clear();
    }
    ~history() override
    {
        ve_history_clear();
        const std::string command = "rm -rf " + directory;
        EXPECT_EQ(system(command.c_str()), 0);
    }
    std::string path(const char *name) const { return directory + "/" + name; }
    void put(const char *name, const std::string &content) const
    {
        std::ofstream file(path(name), std::ios::binary);
        file << content;
    }
    std::string get(const char *name) const
    {
        std::ifstream file(path(name), std::ios::binary);
        std::stringstream all;
        all << file.rdbuf();
        return all.str();
    }
    static std::vector<std::string> entries()
    {
        std::vector<std::string> all;
        for (size_t i = 0; i < ve_history_size(); ++i)
            all.emplace_back(ve_history_get(i));
        return all;
    }
    std::string directory;
};

using texts = std::vector<std::string>;

TEST_F(history, keeps_entries_oldest_first_with_duplicates)
{
    ve_history_add("ls");
    ve_history_add("pwd");
    ve_history_add("ls");
    EXPECT_EQ(entries(), (texts{"ls", "pwd", "ls"}));
    EXPECT_EQ(ve_history_get(3), nullptr);
    ve_history_clear();
    EXPECT_EQ(ve_history_size(), 0U);
    EXPECT_EQ(ve_history_get(0), nullptr);
}

TEST_F(history, reads_plain_lines)
{
    put("h", "ls\n cat x\\ny\nlast without end");
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    EXPECT_EQ(entries(), (texts{"ls", " cat x\\ny", "last without end"}));
}

TEST_F(history, a_missing_file_is_an_empty_history)
{
    EXPECT_EQ(ve_history_load(path("none").c_str()), 0);
    EXPECT_EQ(ve_history_size(), 0U);
    ve_history_add("ls");
    EXPECT_EQ(ve_history_dump(path("none").c_str(), -1), 0);
    EXPECT_EQ(get("none"), "ls\n");
}

TEST_F(history, multi_line_entries_survive_a_reload)
{
    const texts all{"for i=1,3 do\nprint(\"a\\nb\")\nend", "plain \\n text", "\001odd", "trailing\n", "x\\"};
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    for (const auto &entry : all)
        ve_history_add(entry.c_str());
    EXPECT_EQ(ve_history_dump(path("h").c_str(), -1), 0);
    EXPECT_TRUE(get("h").starts_with("\001for i=1,3 do\\nprint(\"a\\\\nb\")\\nend\nplain \\n text\n")) << get("h");
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    EXPECT_EQ(entries(), all);
}

TEST_F(history, is_written_for_its_user_alone)
{
    put("h", "old\n");
    chmod(path("h").c_str(), 0644);
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    ve_history_add("new");
    EXPECT_EQ(ve_history_dump(path("h").c_str(), -1), 0);
    struct stat info;
    ASSERT_EQ(stat(path("h").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
    EXPECT_EQ(get("h"), "old\nnew\n");
}

TEST_F(history, one_that_was_never_loaded_is_never_written_over_its_file)
{
    put("h", "precious\n");
    ve_history_add("x");
    EXPECT_LT(ve_history_dump(path("h").c_str(), -1), 0);
    EXPECT_EQ(get("h"), "precious\n");
    // Nor is one that was loaded from elsewhere, nor one that was cleared since.
    put("other", "y\n");
    EXPECT_EQ(ve_history_load(path("other").c_str()), 0);
    EXPECT_LT(ve_history_dump(path("h").c_str(), -1), 0);
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    ve_history_clear();
    EXPECT_LT(ve_history_dump(path("h").c_str(), -1), 0);
    EXPECT_EQ(get("h"), "precious\n");
}

TEST_F(history, leaves_what_is_no_plain_file_alone)
{
    put("target", "secret\n");
    ASSERT_EQ(symlink(path("target").c_str(), path("link").c_str()), 0);
    ASSERT_EQ(symlink(path("nowhere").c_str(), path("dangling").c_str()), 0);
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    ASSERT_EQ(mkdir(path("dir").c_str(), 0700), 0);
    put("two", "names\n");
    ASSERT_EQ(link(path("two").c_str(), path("names").c_str()), 0);
    for (const char *name : {"link", "dangling", "fifo", "dir", "two"}) {
        testing::internal::CaptureStderr();
        EXPECT_LT(ve_history_load(path(name).c_str()), 0) << name;
        EXPECT_EQ(ve_history_size(), 0U) << name;
        ve_history_add("x");
        EXPECT_LT(ve_history_dump(path(name).c_str(), -1), 0) << name;
        EXPECT_LT(ve_history_load(path(name).c_str()), 0) << name;
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    }
    EXPECT_EQ(get("target"), "secret\n");
    EXPECT_EQ(get("names"), "names\n");
    EXPECT_NE(access(path("nowhere").c_str(), F_OK), 0);
}

TEST_F(history, what_took_the_place_of_the_file_is_left_alone)
{
    put("h", "old\n");
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    ve_history_add("new");
    put("target", "secret\n");
    unlink(path("h").c_str());
    ASSERT_EQ(symlink(path("target").c_str(), path("h").c_str()), 0);
    testing::internal::CaptureStderr();
    EXPECT_LT(ve_history_dump(path("h").c_str(), -1), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(get("target"), "secret\n");
}

TEST_F(history, a_write_that_fails_keeps_the_old_file)
{
    put("h", "old\n");
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    ve_history_add(std::string(100000, 'x').c_str());
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit small{.rlim_cur = 4096, .rlim_max = before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    const int history_result = ve_history_dump(path("h").c_str(), -1);
    const int script_result = ve_history_dump(path("h").c_str(), 1);
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_LT(history_result, 0);
    EXPECT_LT(script_result, 0);
    EXPECT_EQ(get("h"), "old\n");
    // Nothing is left beside it either.
    const std::string command = "test $(ls -A " + directory + " | wc -l) = 1";
    EXPECT_EQ(system(command.c_str()), 0);
}

TEST_F(history, a_recording_is_plain_text)
{
    ve_history_add("one");
    ve_history_add("two\nlines");
    ve_history_add("three");
    EXPECT_EQ(ve_history_dump(path("script").c_str(), 2), 0);
    EXPECT_EQ(get("script"), "two\nlines\nthree\n");
    EXPECT_EQ(ve_history_dump(path("script").c_str(), 99), 0);
    EXPECT_EQ(get("script"), "one\ntwo\nlines\nthree\n");
    EXPECT_LT(ve_history_dump(path("no/such/directory").c_str(), 1), 0);
    EXPECT_LT(ve_history_dump(directory.c_str(), 1), 0);
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_LT(ve_history_dump(path("fifo").c_str(), 1), 0);
}

TEST_F(history, a_recording_follows_a_symbolic_link)
{
    put("real", "");
    ASSERT_EQ(symlink(path("real").c_str(), path("link").c_str()), 0);
    ve_history_add("one");
    EXPECT_EQ(ve_history_dump(path("link").c_str(), 1), 0);
    EXPECT_EQ(get("real"), "one\n");
}

TEST_F(history, count_zero_writes_what_came_since_load_clear_or_mark)
{
    put("h", "old\n");
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    EXPECT_EQ(ve_history_dump(path("script").c_str(), 0), 0);
    EXPECT_EQ(get("script"), "");
    ve_history_add("a");
    ve_history_add("b");
    EXPECT_EQ(ve_history_dump(path("script").c_str(), 0), 0);
    EXPECT_EQ(get("script"), "a\nb\n");
    ve_history_mark();
    ve_history_add("c");
    EXPECT_EQ(ve_history_dump(path("script").c_str(), 0), 0);
    EXPECT_EQ(get("script"), "c\n");
    ve_history_clear();
    ve_history_add("d");
    EXPECT_EQ(ve_history_dump(path("script").c_str(), 0), 0);
    EXPECT_EQ(get("script"), "d\n");
}

TEST_F(history, a_hundred_thousand_entries_cost_next_to_nothing)
{
    std::string content;
    for (int i = 0; i < 100000; ++i)
        content += "set Device.Hosts.Host." + std::to_string(i) + ".Alias=name\n";
    put("h", content);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(ve_history_load(path("h").c_str()), 0);
    for (int i = 0; i < 100000; ++i)
        ve_history_add("another line");
    EXPECT_EQ(ve_history_dump(path("h").c_str(), -1), 0);
    // Quadratic work would take minutes.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_EQ(ve_history_size(), 200000U);
    EXPECT_STREQ(ve_history_get(99999), "set Device.Hosts.Host.99999.Alias=name");
}

} // namespace

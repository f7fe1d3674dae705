#include "platform/ve_history.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "vebase/editor/history_files.h"

namespace
{

class history : public testing::Test
{
protected:
    history()
    {
        // In memory where it can be: a busy disk may hold one session up for longer than others wait for it.
        std::string name = access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp";
        name += "/kest-history.XXXXXX";
        directory = mkdtemp(name.data());
    }
    ~history() override
    {
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
    int load(ve_history &list, const char *name) const { return list.load(path(name).c_str()); }
    bool holds_one_file() const
    {
        const std::string command = "test $(ls -A " + directory + " | wc -l) = 1";
        return system(command.c_str()) == 0;
    }
    std::string directory;
    ve_history lines;
};

using texts = std::vector<std::string>;

texts entries(const ve_history &list)
{
    texts all;
    for (size_t i = 0; i < list.size(); ++i)
        all.emplace_back(list.entry(i));
    return all;
}

/// What the current process writes can grow no larger than that.
class small_files
{
public:
    explicit small_files(rlim_t size)
    {
        signal(SIGXFSZ, SIG_IGN);
        getrlimit(RLIMIT_FSIZE, &before_);
        const rlimit small{.rlim_cur = size, .rlim_max = before_.rlim_max};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    small_files(const small_files &) = delete;
    small_files &operator=(const small_files &) = delete;
    ~small_files() { setrlimit(RLIMIT_FSIZE, &before_); }

private:
    rlimit before_;
};

TEST_F(history, keeps_entries_oldest_first_with_duplicates)
{
    for (const char *entry : {"ls", "pwd", "ls"})
        lines.add(entry);
    EXPECT_EQ(entries(lines), (texts{"ls", "pwd", "ls"}));
    EXPECT_STREQ(lines.entry(1).data(), "pwd");
    lines.add({"a\0b", 3});
    EXPECT_EQ(lines.entry(3), "ab");
}

TEST_F(history, reads_plain_lines)
{
    put("h", "ls\n cat x\\ny\n\nlast without end");
    EXPECT_EQ(load(lines, "h"), 0);
    EXPECT_EQ(entries(lines), (texts{"ls", " cat x\\ny", "last without end"}));
}

TEST_F(history, a_missing_file_is_an_empty_history)
{
    EXPECT_EQ(load(lines, "none"), 0);
    EXPECT_EQ(lines.size(), 0U);
    lines.add("ls");
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(get("none"), "ls\n");
}

TEST_F(history, multi_line_entries_survive_a_reload)
{
    const texts all{"for i=1,3 do\nprint(\"a\\nb\")\nend", "plain \\n text", "\001odd", "trailing\n", "x\\"};
    EXPECT_EQ(load(lines, "h"), 0);
    for (const auto &entry : all)
        lines.add(entry);
    EXPECT_EQ(lines.save(), 0);
    EXPECT_TRUE(get("h").starts_with("\001for i=1,3 do\\nprint(\"a\\\\nb\")\\nend\nplain \\n text\n")) << get("h");
    ve_history again;
    EXPECT_EQ(load(again, "h"), 0);
    EXPECT_EQ(entries(again), all);
}

TEST_F(history, an_escape_that_nobody_writes_stays_as_it_is)
{
    put("h", "\001a\\tb\\\n");
    EXPECT_EQ(load(lines, "h"), 0);
    EXPECT_EQ(entries(lines), texts{"a\\tb\\"});
}

TEST_F(history, one_of_another_user_is_left_alone)
{
    put("h", "theirs\n");
    if (chown(path("h").c_str(), 65534, 65534) != 0)
        GTEST_SKIP() << "only root can give files away";
    testing::internal::CaptureStderr();
    EXPECT_LT(load(lines, "h"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              path("h") + ": a file of another user, the history there is left alone.\n");
    lines.add("mine");
    EXPECT_LT(lines.save(), 0);
    EXPECT_EQ(get("h"), "theirs\n");
}

TEST_F(history, is_written_for_its_user_alone)
{
    put("h", "old\n");
    chmod(path("h").c_str(), 0644);
    EXPECT_EQ(load(lines, "h"), 0);
    lines.add("new");
    EXPECT_EQ(lines.save(), 0);
    struct stat info;
    ASSERT_EQ(stat(path("h").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777U, 0600U);
    EXPECT_EQ(get("h"), "old\nnew\n");
}

TEST_F(history, one_that_was_never_loaded_is_never_saved)
{
    lines.add("x");
    EXPECT_LT(lines.save(), 0);
    EXPECT_FALSE(holds_one_file());
}

TEST_F(history, sessions_that_run_at_once_lose_nothing)
{
    put("h", "old\n");
    ve_history other;
    EXPECT_EQ(load(lines, "h"), 0);
    EXPECT_EQ(load(other, "h"), 0);
    lines.add("a");
    other.add("b");
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(other.save(), 0);
    EXPECT_EQ(get("h"), "old\na\nb\n");
    // What was saved is not added again, and what others saved comes with the next load.
    EXPECT_EQ(lines.save(), 0);
    lines.add("c");
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(get("h"), "old\na\nb\nc\n");
    EXPECT_EQ(entries(lines), (texts{"old", "a", "c"}));
    EXPECT_EQ(load(lines, "h"), 0);
    EXPECT_EQ(entries(lines), (texts{"old", "a", "b", "c"}));
}

TEST_F(history, sessions_that_end_at_once_lose_nothing)
{
    constexpr int sessions = 8;
    constexpr int saves = 25;
    for (int session = 0; session < sessions; ++session) {
        if (fork() != 0)
            continue;
        ve_history mine;
        bool saved = load(mine, "h") == 0;
        for (int i = 0; i < saves; ++i) {
            mine.add(std::to_string(session) + " " + std::to_string(i));
            saved = mine.save() == 0 && saved;
        }
        _exit(saved ? 0 : 1);
    }
    for (int session = 0; session < sessions; ++session) {
        int status = -1;
        wait(&status);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(load(lines, "h"), 0);
    std::vector<int> next(sessions, 0);
    for (const std::string &entry : entries(lines)) {
        const auto session = static_cast<size_t>(entry[0] - '0');
        EXPECT_EQ(entry, std::to_string(session) + " " + std::to_string(next[session]++));
    }
    EXPECT_EQ(next, std::vector<int>(sessions, saves));
    EXPECT_TRUE(holds_one_file());
}

TEST_F(history, a_session_that_never_lets_go_of_the_file_is_not_waited_for)
{
    put("h", "old\n");
    EXPECT_EQ(load(lines, "h"), 0);
    lines.add("new");
    const int held = open(path("h").c_str(), O_RDONLY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    EXPECT_EQ(lines.save(), 0);
    close(held);
    EXPECT_EQ(get("h"), "old\nnew\n");
}

TEST_F(history, one_that_was_taken_away_comes_back)
{
    put("h", "old\n");
    EXPECT_EQ(load(lines, "h"), 0);
    lines.add("new");
    unlink(path("h").c_str());
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(get("h"), "old\nnew\n");
}

TEST_F(history, the_file_keeps_the_newest_10000)
{
    std::string content;
    for (int i = 0; i < 9999; ++i)
        content += std::to_string(i) + "\n";
    put("h", content);
    EXPECT_EQ(load(lines, "h"), 0);
    lines.add("a\nb");
    lines.add("c");
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(get("h"), content.substr(2) + "\001a\\nb\nc\n");
    EXPECT_EQ(lines.size(), 10001U);
    for (int i = 0; i < 20000; ++i)
        lines.add("new");
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(get("h").size(), 10000 * strlen("new\n"));
}

TEST_F(history, reads_every_kind_of_line_beside_each_other)
{
    using namespace std::string_literals;
    put("h", "\n\none\n\001two\\nlines\\\\\n\n\0\nthr\0ee\n\001\0\n \nlast"s);
    ve_history list;
    EXPECT_EQ(load(list, "h"), 0);
    EXPECT_EQ(entries(list), (texts{"one", "two\nlines\\", "", "three", "", " ", "last"}));
    list.add("new");
    EXPECT_EQ(list.save(), 0);
    EXPECT_EQ(get("h"), "one\n\001two\\nlines\\\\\n\nthree\n\n \nlast\nnew\n");
    EXPECT_EQ(list.entry(6), "last");
}

TEST(history_newest, counts_entries_from_the_end)
{
    const struct {
        const char *content;
        size_t count;
        const char *newest;
    } cases[] = {{"", 3, ""},
                 {"a", 3, "a"},
                 {"a\nb", 1, "b"},
                 {"a\nb\n", 1, "b\n"},
                 {"\n\na\nb", 2, "a\nb"},
                 {"a\n\n\nb\n\n", 1, "b\n\n"},
                 {"a\nb\nc\n", 2, "b\nc\n"},
                 {"\n", 2, "\n"},
                 {"a\nb\n", 0, ""},
                 {"a\n\n\nb\n\n", 2, "a\n\n\nb\n\n"}};
    for (const auto &one : cases)
        EXPECT_EQ(history_newest(one.content, one.count), one.newest) << one.content << one.count;
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
        ve_history list;
        testing::internal::CaptureStderr();
        EXPECT_LT(load(list, name), 0) << name;
        EXPECT_EQ(list.size(), 0U) << name;
        list.add("x");
        EXPECT_LT(list.save(), 0) << name;
        EXPECT_LT(load(list, name), 0) << name;
        const std::string said = testing::internal::GetCapturedStderr();
        EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
        EXPECT_EQ(entries(list), texts{"x"}) << name;
    }
    EXPECT_EQ(get("target"), "secret\n");
    EXPECT_EQ(get("names"), "names\n");
    EXPECT_NE(access(path("nowhere").c_str(), F_OK), 0);
}

TEST_F(history, what_took_the_place_of_the_file_is_left_alone)
{
    put("h", "old\n");
    EXPECT_EQ(load(lines, "h"), 0);
    lines.add("new");
    put("target", "secret\n");
    unlink(path("h").c_str());
    ASSERT_EQ(symlink(path("target").c_str(), path("h").c_str()), 0);
    testing::internal::CaptureStderr();
    EXPECT_LT(lines.save(), 0);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(get("target"), "secret\n");
    // What was not saved is not lost.
    unlink(path("h").c_str());
    put("h", "another\n");
    EXPECT_EQ(load(lines, "h"), 0);
    EXPECT_EQ(entries(lines), (texts{"another", "new"}));
    EXPECT_EQ(lines.save(), 0);
    EXPECT_EQ(get("h"), "another\nnew\n");
}

TEST_F(history, a_write_that_fails_keeps_the_old_file)
{
    put("h", "old\n");
    EXPECT_EQ(load(lines, "h"), 0);
    lines.add(std::string(100000, 'x'));
    testing::internal::CaptureStderr();
    {
        const small_files limit(4096);
        EXPECT_LT(lines.save(), 0);
        EXPECT_LT(ve_history_write_script(path("h").c_str(), lines.script(1)), 0);
    }
    EXPECT_EQ(std::ranges::count(testing::internal::GetCapturedStderr(), '\n'), 2);
    EXPECT_EQ(get("h"), "old\n");
    // Nothing is left beside it either.
    EXPECT_TRUE(holds_one_file());
}

TEST_F(history, a_script_is_plain_text)
{
    for (const char *entry : {"one", "two\nlines", "three"})
        lines.add(entry);
    EXPECT_EQ(lines.script(3), "");
    EXPECT_EQ(lines.script(1), "two\nlines\nthree\n");
    EXPECT_EQ(ve_history_write_script(path("script").c_str(), lines.script(0)), 0);
    EXPECT_EQ(get("script"), "one\ntwo\nlines\nthree\n");
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    testing::internal::CaptureStderr();
    for (const std::string &name : {path("no/such/directory"), directory, path("fifo")})
        EXPECT_LT(ve_history_write_script(name.c_str(), "x\n"), 0) << name;
    EXPECT_EQ(std::ranges::count(testing::internal::GetCapturedStderr(), '\n'), 3);
}

TEST_F(history, a_script_follows_a_symbolic_link)
{
    put("real", "");
    ASSERT_EQ(symlink(path("real").c_str(), path("link").c_str()), 0);
    ASSERT_EQ(chmod(path("real").c_str(), 0644), 0);
    EXPECT_EQ(ve_history_write_script(path("link").c_str(), "one\n"), 0);
    EXPECT_EQ(get("real"), "one\n");
    // Nobody else can read there what stands in it now.
    struct stat info;
    ASSERT_EQ(stat(path("real").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600U);
}

TEST_F(history, a_script_goes_into_plain_files_alone)
{
    testing::internal::CaptureStderr();
    EXPECT_LT(ve_history_write_script("/dev/null", "x\n"), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "/dev/null: Operation not permitted\n");
}

TEST_F(history, a_script_that_cannot_be_written_whole_in_its_place_is_emptied)
{
    put("real", "old\n");
    ASSERT_EQ(link(path("real").c_str(), path("other").c_str()), 0);
    testing::internal::CaptureStderr();
    {
        const small_files limit(4096);
        EXPECT_LT(ve_history_write_script(path("real").c_str(), std::string(5000, 'x')), 0);
    }
    EXPECT_EQ(testing::internal::GetCapturedStderr(), path("real") + ": File too large\n");
    EXPECT_EQ(get("other"), "");
}

TEST_F(history, a_script_that_may_not_be_written_is_left_alone)
{
    constexpr uid_t nobody = 65534;
    put("script", "old\n");
    ASSERT_EQ(chmod(path("script").c_str(), 0400), 0);
    const bool root = geteuid() == 0;
    if (root) {
        ASSERT_EQ(chown(directory.c_str(), nobody, nobody), 0);
        ASSERT_EQ(chown(path("script").c_str(), nobody, nobody), 0);
    }
    EXPECT_EXIT(
        {
            const bool somebody = !root || setresuid(nobody, nobody, nobody) == 0;
            _exit(somebody && ve_history_write_script(path("script").c_str(), "new\n") < 0 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "script: Permission denied");
    EXPECT_EQ(get("script"), "old\n");
}

TEST_F(history, ten_times_the_entries_cost_ten_times_the_work)
{
    // The seconds of this process that it takes to load so many entries, to add as many, and to save them all.
    const auto work_of = [this](size_t entries) {
        ve_history list;
        std::string content;
        for (size_t i = 0; i < entries; ++i)
            content += "set Device.Hosts.Host." + std::to_string(i) + ".Alias=name\n";
        put("h", content);
        const clock_t start = clock();
        EXPECT_EQ(load(list, "h"), 0);
        for (size_t i = 0; i < entries; ++i)
            list.add("another line");
        EXPECT_EQ(list.save(), 0);
        const clock_t end = clock();
        EXPECT_EQ(list.size(), 2 * entries);
        EXPECT_EQ(list.entry(entries - 1), "set Device.Hosts.Host." + std::to_string(entries - 1) + ".Alias=name");
        return double(end - start) / CLOCKS_PER_SEC;
    };
    // Quadratic work would take a hundred times as long.
    EXPECT_LT(work_of(100000), 0.5 + 40 * work_of(10000));
}

} // namespace

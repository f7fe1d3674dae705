#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "platform/ve_json.h"
#include "shell/completers.h"
#include "utils/json_util.h"

namespace
{

/// A directory of its own that is the current one while a test runs.
class CompleteFile : public testing::Test
{
protected:
    CompleteFile()
    {
        char name[] = "/tmp/kest-complete-XXXXXX";
        before_ = std::filesystem::current_path();
        root_ = mkdtemp(name);
        std::filesystem::current_path(root_);
        if (const char *path = getenv("PATH"))
            path_ = path;
        complete_program_forget();
    }
    ~CompleteFile() override
    {
        setenv("PATH", path_.c_str(), 1);
        std::filesystem::current_path(before_);
        std::filesystem::remove_all(root_);
    }

    static void touch(const std::string &name, mode_t mode = 0644)
    {
        const int fd = open(name.c_str(), O_WRONLY | O_CREAT, mode);
        ASSERT_GE(fd, 0);
        close(fd);
    }

    using completer = completed_part (*)(std::string_view, json_t *);
    /// The candidates in the order in which they are shown.
    static std::vector<std::string> candidates(completer complete, std::string_view word)
    {
        const json_ref list(json_array());
        if (complete(word, list.get()).sort)
            json_array_sort(list.get());
        std::vector<std::string> names;
        for (size_t i = 0; i < json_array_size(list.get()); i++)
            names.emplace_back(json_string_value(json_array_get(list.get(), i)));
        return names;
    }
    static std::vector<std::string> files(std::string_view word) { return candidates(complete_file, word); }
    static std::vector<std::string> found_programs(std::string_view word) { return candidates(complete_program, word); }

    using names = std::vector<std::string>;
    std::string root_;

private:
    std::filesystem::path before_;
    std::string path_;
};

TEST_F(CompleteFile, ListsTheCurrentDirectoryWithoutAWord)
{
    mkdir("dir", 0755);
    touch("b.txt");
    touch(".hidden");
    EXPECT_EQ(files(""), (names{".hidden", "b.txt", "dir/"}));
    EXPECT_EQ(files("d"), names{"dir/"});
    EXPECT_EQ(files(".."), names{});
}

TEST_F(CompleteFile, MatchesBehindTheLastSlash)
{
    mkdir("dir", 0755);
    mkdir("dir/dir", 0755);
    touch("dir/x");
    EXPECT_EQ(files("dir/"), (names{"dir/", "x"}));
    EXPECT_EQ(files("dir//d"), names{"dir/"});
    EXPECT_EQ(files((root_ + "/dir/x").c_str()), names{"x"});
    EXPECT_EQ(files("missing/x"), names{});
    const json_ref list(json_array());
    EXPECT_EQ(complete_file("dir/d", list.get()).begin, 4U);
    EXPECT_EQ(complete_file("d", list.get()).begin, 0U);
}

TEST_F(CompleteFile, LeavesOutWhatDoesNotExistOrIsNoText)
{
    EXPECT_EQ(symlink("nowhere", "dangling"), 0);
    EXPECT_EQ(symlink("/etc", "link"), 0);
    touch("bad\xff");
    touch("good");
    EXPECT_EQ(files(""), (names{"good", "link"}));
}

TEST_F(CompleteFile, ProgramsComeFromPathOnceEach)
{
    mkdir("one", 0755);
    mkdir("two", 0755);
    touch("one/tool", 0755);
    touch("one/data");
    touch("two/tool", 0755);
    touch("two/tool2", 0755);
    mkdir("two/toolbox", 0755);
    setenv("PATH", "one::missing:two:one", 1);
    EXPECT_EQ(found_programs("to"), (names{"tool", "tool2", "toolbox/"}));
    EXPECT_EQ(found_programs("d"), names{});
    EXPECT_EQ(found_programs(""), (names{"tool", "tool2", "toolbox/"}));
}

TEST_F(CompleteFile, ProgramsAreCollectedOnceUntilForgotten)
{
    mkdir("bin", 0755);
    touch("bin/one", 0755);
    setenv("PATH", "bin", 1);
    EXPECT_EQ(found_programs(""), names{"one"});
    touch("bin/two", 0755);
    EXPECT_EQ(found_programs(""), names{"one"});
    complete_program_forget();
    EXPECT_EQ(found_programs(""), (names{"one", "two"}));
}

TEST_F(CompleteFile, ProgramsWithASlashAreFilesThatRun)
{
    touch("run", 0755);
    touch("read");
    setenv("PATH", "/nowhere", 1);
    EXPECT_EQ(found_programs("./r"), names{"run"});
}

TEST_F(CompleteFile, PathMayBeUnset)
{
    unsetenv("PATH");
    EXPECT_EQ(found_programs(""), names{});
}

} // namespace

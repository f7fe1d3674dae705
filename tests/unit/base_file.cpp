#include "base/file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/fd.h"
#include "base/hex.h"

static bool folders_fail = false;

// In the place of the C library's: a disk that breaks when the entries of a folder are written.
extern "C" int fsync(int fd)
{
    struct stat status;
    if (folders_fail && fstat(fd, &status) == 0 && S_ISDIR(status.st_mode)) {
        errno = EIO;
        return -1;
    }
    return static_cast<int>(syscall(SYS_fsync, fd));
}

namespace
{

class Files : public testing::Test
{
protected:
    void SetUp() override
    {
        char name[] = "/tmp/base_file-XXXXXX";
        ASSERT_NE(mkdtemp(name), nullptr);
        directory = name;
        path = directory + "/kept";
    }
    void TearDown() override { std::filesystem::remove_all(directory); }

    std::string content() const
    {
        std::string text;
        const fd_owner file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
        EXPECT_TRUE(read_all(file.get(), 1 << 20, &text));
        return text;
    }
    size_t entries() const
    {
        const std::filesystem::directory_iterator all(directory);
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
    mode_t mode() const
    {
        struct stat info;
        EXPECT_EQ(stat(path.c_str(), &info), 0);
        return info.st_mode & 07777;
    }

    std::string directory;
    std::string path;
};

TEST_F(Files, AFileIsMadeAndReplacedWithTheRightsAskedFor)
{
    ASSERT_TRUE(replace_file(path, "one", {.mode = 0600}));
    EXPECT_EQ(content(), "one");
    EXPECT_EQ(mode(), 0600U);
    const std::string longer(100'000, 'x');
    ASSERT_TRUE(replace_file(path, longer, {.mode = 0664, .durable = true}));
    EXPECT_EQ(content(), longer);
    EXPECT_EQ(mode(), 0664U);
    EXPECT_EQ(entries(), 1U);
}

TEST_F(Files, WithoutRightsAFileGetsWhatTheUmaskLeaves)
{
    const mode_t before = umask(027);
    const bool done = replace_file(path, "", {});
    umask(before);
    ASSERT_TRUE(done);
    EXPECT_EQ(mode(), 0640U);
}

TEST_F(Files, AReaderOfTheOldFileKeepsIt)
{
    ASSERT_TRUE(replace_file(path, "old", {}));
    const fd_owner old{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    ASSERT_TRUE(replace_file(path, "new", {.suffix = ".new"}));
    std::string text;
    ASSERT_TRUE(read_all(old.get(), 100, &text));
    EXPECT_EQ(text, "old");
    EXPECT_EQ(content(), "new");
}

TEST_F(Files, ASymbolicLinkIsItselfReplaced)
{
    ASSERT_EQ(symlink("elsewhere", path.c_str()), 0);
    ASSERT_TRUE(replace_file(path, "here", {}));
    EXPECT_TRUE(std::filesystem::is_regular_file(std::filesystem::symlink_status(path)));
    EXPECT_EQ(entries(), 1U);
}

TEST_F(Files, WhatFailsLeavesTheOldFileAndNothingElse)
{
    ASSERT_TRUE(replace_file(path, "old", {}));
    // The disk is full at 4 bytes.
    signal(SIGXFSZ, SIG_IGN);
    rlimit before;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &before), 0);
    const rlimit small = {4, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
    const bool done = replace_file(path, "longer", {});
    const int error = errno;
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_FALSE(done);
    EXPECT_EQ(error, EFBIG);
    EXPECT_EQ(content(), "old");
    EXPECT_EQ(entries(), 1U);
}

TEST_F(Files, AFileIsOnlyThereWhenItsFolderIsWritten)
{
    folders_fail = true;
    EXPECT_TRUE(replace_file(path, "one", {}));
    EXPECT_FALSE(replace_file(path, "two", {.durable = true}));
    EXPECT_EQ(errno, EIO);
    EXPECT_FALSE(sync_directory(directory));
    folders_fail = false;
    EXPECT_TRUE(replace_file(path, "three", {.durable = true}));
    EXPECT_TRUE(sync_directory(directory));
    EXPECT_FALSE(sync_directory(directory + "/missing"));
    EXPECT_EQ(content(), "three");
}

TEST_F(Files, WhatStandsInTheWayIsSaid)
{
    ASSERT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_FALSE(replace_file(path, "text", {}));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_EQ(entries(), 1U);
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0700), 0);
    EXPECT_FALSE(replace_file(path, "text", {.suffix = ".new"}));
    EXPECT_FALSE(replace_file(directory + "/missing/file", "text", {}));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Files, WhatAKilledWriterLeftIsWrittenOverByTheNext)
{
    ASSERT_TRUE(replace_file(path + ".new", "half of something", {}));
    ASSERT_TRUE(replace_file(path, "whole", {.suffix = ".new"}));
    EXPECT_EQ(content(), "whole");
    EXPECT_EQ(entries(), 1U);
}

TEST_F(Files, ReadingStopsAtItsLimit)
{
    ASSERT_TRUE(replace_file(path, std::string(40'000, 'a') + "b", {}));
    const fd_owner file{open(path.c_str(), O_RDONLY | O_CLOEXEC)};
    std::string text = "before ";
    ASSERT_TRUE(read_all(file.get(), 40'000, &text));
    EXPECT_EQ(text, "before " + std::string(40'000, 'a'));
    ASSERT_TRUE(read_all(file.get(), 40'000, &text));
    EXPECT_EQ(text.back(), 'b');
}

TEST_F(Files, AnErrorOfReadingOrWritingIsSaid)
{
    const fd_owner both{open(directory.c_str(), O_RDONLY | O_CLOEXEC)};
    std::string text;
    EXPECT_FALSE(read_all(both.get(), 10, &text));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_FALSE(write_all(both.get(), "text"));
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(sync_directory(path));
}

TEST(Hex, BytesBecomeTwoDigitsEach)
{
    const unsigned char bytes[] = {0x00, 0x0f, 0xa5, 0xff};
    EXPECT_EQ(hex_of(bytes, sizeof bytes), "000fa5ff");
    EXPECT_EQ(hex_of(bytes, 0), "");
    EXPECT_EQ(random_hex(16).size(), 32U);
    EXPECT_NE(random_hex(16), random_hex(16));
    EXPECT_EQ(random_hex(65), "");
}

} // namespace

#include "platform/ve_fs.h"

#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

class FileTest : public testing::Test
{
protected:
    void SetUp() override { ASSERT_NE(mkdtemp(directory), nullptr); }
    void TearDown() override { std::filesystem::remove_all(directory); }
    std::string path(const char *name) const { return std::string(directory) + "/" + name; }
    std::string file(const char *name, const std::string &content) const
    {
        std::ofstream(path(name)) << content;
        return path(name);
    }
    static std::string md5(const std::string &path)
    {
        unsigned char digest[16];
        return ve_md5_calculate_from_file(path.c_str(), digest) == 0 ? ve_md5_to_str(digest) : "none";
    }

    char directory[32] = "/tmp/kest-fs-XXXXXX";
};

} // namespace

TEST_F(FileTest, DescriptorZeroIsAFileLikeAnyOther)
{
    const std::string path = file("abc", "abc");
    const int kept = dup(STDIN_FILENO);
    ASSERT_GT(kept, STDIN_FILENO);
    close(STDIN_FILENO);
    void *data = nullptr;
    size_t size = 0;
    const int mapped = ve_fs_mmap_file(path.c_str(), &data, &size);
    const std::string digest = md5(path);
    const int touched = ve_fs_touch(path.c_str());
    dup2(kept, STDIN_FILENO);
    close(kept);
    EXPECT_EQ(mapped, 0);
    EXPECT_EQ(std::string(static_cast<const char *>(data), size), "abc");
    ve_fs_munmap_file(data, size);
    EXPECT_EQ(digest, "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(touched, 0);
}

TEST_F(FileTest, Md5OfRegularFilesOnly)
{
    EXPECT_EQ(md5(file("empty", "")), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(md5(file("abc", "abc")), "900150983cd24fb0d6963f7d28e17f72");
    EXPECT_EQ(md5(file("large", std::string(1000000, 'a'))), "7707d6ae4e027c70eea2a935c2296f21");
    EXPECT_EQ(md5(directory), "none");
    EXPECT_EQ(md5(path("missing")), "none");
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(md5(path("fifo")), "none");
}

TEST_F(FileTest, MappingsOfEmptyFilesAreNoFailure)
{
    void *data = nullptr;
    size_t size = 9;
    ASSERT_EQ(ve_fs_mmap_file(file("empty", "").c_str(), &data, &size), 0);
    EXPECT_NE(data, nullptr);
    EXPECT_EQ(size, 0U);
    ve_fs_munmap_file(data, size);
    ASSERT_EQ(ve_fs_mmap_file(file("one", "x").c_str(), &data, &size), 0);
    EXPECT_EQ(std::string(static_cast<char *>(data), size), "x");
    ve_fs_munmap_file(data, size);
    EXPECT_LT(ve_fs_mmap_file(directory, &data, &size), 0);
}

TEST_F(FileTest, AFileIsMappedWholeOrNotAtAll)
{
    const std::string path = file("sparse", "");
    constexpr off_t beyond_a_word = (off_t{1} << 32) + 3;
    ASSERT_EQ(truncate(path.c_str(), beyond_a_word), 0);
    void *data = nullptr;
    size_t size = 0;
    if (ve_fs_mmap_file(path.c_str(), &data, &size) != 0)
        return; // where it has more bytes than there are addresses
    EXPECT_EQ(size, static_cast<uint64_t>(beyond_a_word));
    ve_fs_munmap_file(data, size);
}

TEST_F(FileTest, TouchCreatesAndKeeps)
{
    EXPECT_EQ(ve_fs_touch(path("new").c_str()), 0);
    EXPECT_EQ(access(path("new").c_str(), F_OK), 0);
    const std::string kept = file("kept", "content");
    EXPECT_EQ(ve_fs_touch(kept.c_str()), 0);
    EXPECT_EQ(md5(kept), "9a0364b9e99bb480dd25e1f0284c8555");
    EXPECT_LT(ve_fs_touch(directory), 0);
    EXPECT_LT(ve_fs_touch(path("no/such").c_str()), 0);
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    EXPECT_LT(ve_fs_touch(path("fifo").c_str()), 0);
}

TEST(UrlParse, AUrlIsASchemeAndSomethingBehindIt)
{
    for (const char *url : {"http://x", "file:///tmp/x", "netcat://1.2.3.4:5", "a+b-c.d://x"})
        EXPECT_EQ(ve_url_parse(url), 0) << url;
    for (const char *file :
         {"", "x", "/tmp/x", "dir/http://x", "a:b", "http:/x", "http://", "1a://x", "://x", "a_b://x"})
        EXPECT_LT(ve_url_parse(file), 0) << file;
    EXPECT_LT(ve_url_parse(nullptr), 0);
}

TEST(FirmwareVersion, TellsTheHighestPartThatDiffers)
{
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.2.3"), 0);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.2.10"), 1);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.2.2"), -1);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.3.0"), 2);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.1.9"), -2);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "2.0.0"), 3);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "0.9.9"), -3);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.2.3.1"), 1);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3.4", "1.2.3.0005"), 1);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "1.2.03"), 0);
    EXPECT_EQ(ve_firmware_version_cmp("GW-1.2.3", "GW-1.2.3"), 0);
    EXPECT_EQ(ve_firmware_version_cmp("1.0.99999999999999999999", "1.0.100000000000000000000"), 1);
}

TEST(FirmwareVersion, ProductsThatDifferAreTheLargestStep)
{
    EXPECT_EQ(ve_firmware_version_cmp("A-1.2.3", "B-1.2.4"), INT_MAX);
    EXPECT_EQ(ve_firmware_version_cmp("A-1.2.3", "B-1.2.2"), -INT_MAX);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", "B-1.2.3"), INT_MAX);
    EXPECT_EQ(ve_firmware_version_cmp("X-Y-1.2.3", "X-Z-1.2.3"), INT_MAX);
}

TEST(FirmwareVersion, WhatCannotBeReadIsNoStep)
{
    for (const char *bad : {"", "1", "1.2", "1.2.", ".1.2", "1..2", "a.b.c", "1.2.3-rc", "1.2.-3", "1.2.3 "})
        EXPECT_EQ(ve_firmware_version_cmp("1.2.3", bad), ve_firmware_version_unreadable) << bad;
    EXPECT_EQ(ve_firmware_version_cmp(nullptr, "1.2.3"), ve_firmware_version_unreadable);
    EXPECT_EQ(ve_firmware_version_cmp("1.2.3", nullptr), ve_firmware_version_unreadable);
}

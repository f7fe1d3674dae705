#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "main/script.h"
#include "platform/ve_out.h"

namespace
{

/// A script file for the length of a test.
class Script : public testing::Test
{
protected:
    Script()
    {
        const int fd = mkstemp(path_);
        if (fd >= 0)
            close(fd);
    }
    ~Script() override { unlink(path_); }

    /// Runs `text` as a script; what it prints is in `out_` and `err_`.
    int run(const std::string &text, int flags = 0)
    {
        FILE *file = fopen(path_, "w");
        fwrite(text.data(), 1, text.size(), file);
        fclose(file);
        return run_file(path_, flags);
    }
    int run_file(const char *path, int flags)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        ve_out_reopened();
        const int result = run_script(path, flags);
        ve_out_flush();
        out_ = testing::internal::GetCapturedStdout();
        err_ = testing::internal::GetCapturedStderr();
        return result;
    }

    char path_[32] = "/tmp/kest-script-XXXXXX";
    std::string out_;
    std::string err_;
};

TEST_F(Script, TheLastResultIsTheResult)
{
    EXPECT_EQ(run(""), 0);
    EXPECT_EQ(run("echo a\n"), 0);
    EXPECT_EQ(run("help\n", 1), 0);
    EXPECT_EQ(run("nonsense\n"), -1);
    EXPECT_EQ(run("echo a\nnonsense\necho b\n"), -1);
    EXPECT_EQ(out_, "a\nnonsense: unknown method.\n");
}

TEST_F(Script, TheFlagChoosesTheDispatcher)
{
    EXPECT_EQ(run("pwd\n", 0), -1);
    EXPECT_EQ(out_, "pwd: unknown method.\n");
    EXPECT_EQ(run("pwd\n", 1), 0);
    EXPECT_EQ(out_, ":\n");
    EXPECT_EQ(run("nonsense\n", 1), -1);
    EXPECT_EQ(out_, "nonsense: command not found.\n");
}

TEST_F(Script, ABlockBoundaryIsNoLineEnd)
{
    // The file is read in pieces of 65536 bytes; a line falls across them at every offset.
    for (const size_t size : {65530U, 65531U, 65532U, 65535U, 65536U, 65537U, 131072U}) {
        const std::string word(size, 'x');
        EXPECT_EQ(run("echo " + word + "\necho end"), 0);
        EXPECT_EQ(out_, word + "\nend\n");
    }
}

TEST_F(Script, WhatCannotBeOpenedIsNamed)
{
    EXPECT_EQ(run_file("/nowhere/script", 0), -1);
    EXPECT_EQ(out_, "Cannot open script file /nowhere/script\n");
    EXPECT_EQ(run_file("/tmp", 0), -1);
    EXPECT_EQ(out_, "Cannot open script file /tmp\n");
    EXPECT_EQ(run_file(nullptr, 0), -1);
    EXPECT_EQ(out_, "Cannot open script file (null)\n");
}

TEST_F(Script, BytesThatAreNoTextAreRefused)
{
    EXPECT_EQ(run(std::string("echo a\0b\necho c\n", 16)), -1);
    EXPECT_EQ(err_, std::string(path_) + ": line 1 is not text.\n");
    EXPECT_EQ(run("echo \xff\n"), 0); // a text that is only copied may be anything
    EXPECT_EQ(out_, "\xff\n");
}

} // namespace

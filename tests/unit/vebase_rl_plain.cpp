#include "platform/ve_rl.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

#include "base/framing.h"
#include "vebase/editor/rl_control.h"

namespace
{

/// A descriptor as standard input.
class PlainTest : public testing::Test
{
protected:
    void TearDown() override
    {
        dup2(kept_, STDIN_FILENO);
        close(kept_);
        rl_note_input_error(0);
    }
    static void take_input(int fd)
    {
        dup2(fd, STDIN_FILENO);
        close(fd);
    }
    static std::string line(int timeout_ms)
    {
        const std::unique_ptr<char, void (*)(void *)> read(ve_rl("", timeout_ms), free);
        return read ? read.get() : "none";
    }

private:
    int kept_ = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 10);
};

} // namespace

TEST_F(PlainTest, ALineIsNotWaitedForBeyondItsTime)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    take_input(ends[0]);
    ASSERT_EQ(write(ends[1], "ha", 2), 2);
    EXPECT_EQ(line(0), "none");
    EXPECT_FALSE(ve_rl_ctrld_is_pressed());
    ASSERT_EQ(write(ends[1], "lf\n", 3), 3);
    EXPECT_EQ(line(-1), "half");
    close(ends[1]);
}

TEST_F(PlainTest, ALineThatNoRequestCouldHoldEndsTheInput)
{
    const int file = memfd_create("input", MFD_CLOEXEC);
    const std::string text = std::string(wire_line_max + 100000, 'x') + "\nnext\n";
    ASSERT_EQ(pwrite(file, text.data(), text.size(), 0), static_cast<ssize_t>(text.size()));
    take_input(file);
    for (int i = 0; i < 2; ++i) { // whatever stands behind it
        EXPECT_EQ(line(-1), "none");
        EXPECT_TRUE(ve_rl_ctrld_is_pressed());
        EXPECT_EQ(ve_rl_input_error(), EMSGSIZE);
    }
}

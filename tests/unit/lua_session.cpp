#include "lua/session.h"

#include <gtest/gtest.h>

#include <lua.hpp>
#include <string>

#include "platform/ve_lua.h"
#include "platform/ve_out.h"

namespace
{

class Session : public testing::Test
{
protected:
    Session() : context_(ve_lua_init(0)), L(context_->state) { kest_lua_init(L); }
    ~Session() override { ve_lua_free(context_); }

    /// What a line shows.
    std::string line(const std::string &text)
    {
        testing::internal::CaptureStdout();
        kest_lua_prepare(L);
        kest_lua_execute(L, text.data(), text.size());
        kest_lua_cleanup(L);
        ve_out_flush();
        return testing::internal::GetCapturedStdout();
    }

    ve_lua_context *context_;
    lua_State *L;
};

} // namespace

TEST_F(Session, LeavesAnUnderscoreThatWasThereBefore)
{
    ASSERT_EQ(luaL_dostring(L, "_ = 5"), LUA_OK);
    EXPECT_EQ(line("_ + 1"), "_[1] = 6\n");
    EXPECT_EQ(line("_"), "_[2] = 5\n");
}

TEST_F(Session, ShowsAsManyResultsAsThereIsRoomFor)
{
    EXPECT_EQ(line("return select(2, 1, 2, 3)"), "_[1] = 2\n_[2] = 3\n");
    for (const char *free : {"55", "45", "35", "29"}) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(line(std::string("return table.unpack({}, 1, 1000000 - ") + free + ")"), "") << free;
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "too many results to show\n") << free;
    }
    EXPECT_EQ(line("1"), "_[3] = 1\n");
}

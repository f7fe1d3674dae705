#include <gtest/gtest.h>

#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "platform/ve_json.h"

namespace
{

/// This program's allocator for the time of a test, which releases every value that it makes.
class VebaseJsonMemory : public testing::Test
{
protected:
    void SetUp() override
    {
        ve_json_own_memory();
        // The first values are made plainly.
        const json_ref many{json_array()};
        for (int i = 0; i < 5000; ++i)
            json_array_append_new(many.get(), json_integer(i));
    }
    void TearDown() override { json_set_alloc_funcs(malloc, free); }
};

std::string text_of(size_t number)
{
    return std::to_string(number) + std::string(number * 7 % 400, 'x');
}

} // namespace

TEST_F(VebaseJsonMemory, ValuesOfAllSizesKeepWhatTheyHoldWhileOthersComeAndGo)
{
    std::mt19937 chance(1);
    std::vector<json_ref> values(20000);
    std::vector<size_t> numbers(values.size());
    for (size_t step = 0; step < 200000; ++step) {
        const size_t at = chance() % values.size();
        if (values[at]) {
            ASSERT_EQ(json_string_value(values[at].get()), text_of(numbers[at]));
            values[at].reset();
        } else {
            numbers[at] = step;
            values[at].reset(json_string(text_of(step).c_str()));
        }
    }
    for (size_t at = 0; at < values.size(); ++at) {
        if (values[at]) {
            ASSERT_EQ(json_string_value(values[at].get()), text_of(numbers[at]));
        }
    }
}

TEST_F(VebaseJsonMemory, AnotherThreadMayMakeAndReleaseValues)
{
    constexpr int rounds = 20;
    for (int round = 0; round < rounds; ++round) {
        json_ref made_here{json_array()};
        for (int i = 0; i < 20000; ++i)
            json_array_append_new(made_here.get(), json_string(text_of(static_cast<size_t>(i) % 30).c_str()));
        json_ref made_there;
        std::thread other([&] {
            made_there.reset(json_array());
            for (int i = 0; i < 20000; ++i)
                json_array_append_new(made_there.get(), json_string(text_of(static_cast<size_t>(i) % 30).c_str()));
            made_here.reset();
        });
        // While it releases, this thread makes more.
        const json_ref more{json_array()};
        for (int i = 0; i < 20000; ++i)
            json_array_append_new(more.get(), json_integer(i));
        other.join();
        for (size_t i = 0; i < 20000; ++i) {
            ASSERT_EQ(json_integer_value(json_array_get(more.get(), i)), static_cast<json_int_t>(i));
            ASSERT_EQ(json_string_value(json_array_get(made_there.get(), i)), text_of(i % 30));
        }
    }
}

// The sanitizers keep what is released for a while.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
static size_t resident_bytes()
{
    size_t total = 0;
    size_t resident = 0;
    std::ifstream("/proc/self/statm") >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

TEST_F(VebaseJsonMemory, WhatIsReleasedGoesBackToTheSystem)
{
    const size_t before = resident_bytes();
    {
        const json_ref many{json_array()};
        for (int i = 0; i < 3000000; ++i)
            json_array_append_new(many.get(), json_integer(i));
        EXPECT_GT(resident_bytes(), before + (size_t{72} << 20));
    }
    EXPECT_LT(resident_bytes(), before + (size_t{48} << 20));
}
#endif

TEST_F(VebaseJsonMemory, TextsThatJanssonMadeAreFreed)
{
    const json_ref value{json_pack("{s:i}", "a", 1)};
    char *text = json_dumps(value.get(), JSON_COMPACT);
    EXPECT_STREQ(text, "{\"a\":1}");
    ve_json_free(text);
    ve_json_free(nullptr);
}

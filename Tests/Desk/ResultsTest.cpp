// The camera's result codes in words and as exit codes.

#include <gtest/gtest.h>

#include <set>

#include "Words/Results.h"

namespace desk {
namespace {

struct Known {
    int32_t code;
    const char* name;
    int exit_code;
};

const Known known[] = {
    {1, "SM_RETURN_TRUE", 0},
    {0, "SM_RETURN_SYSTEM_DATA_ERR", 10},
    {-1, "SM_RETURN_FAIL", 11},
    {-2, "SM_RETURN_DATA_ERR", 12},
    {-3, "SM_RETURN_STRUCT_ERR", 13},
    {-4, "SM_RETURN_JPG_ERR", 14},
    {-5, "SM_RETURN_PRESETN_ERR", 15},
    {-6, "SM_RETURN_LOCALN_ERR", 16},
    {-7, "SM_RETURN_OPENED_ERR", 17},
    {-8, "SM_RETURN_OPENED_BOTH_ERR", 18},
    {-10, "SM_RETURN_BT_RES_ERR", 20},
    {-11, "SM_RETURN_BT_DATA_ERR", 21},
    {-12, "SM_RETURN_BT_STRUCT_ERR", 22},
};

TEST(Results, HaveTheirNames) {
    for (const Known& result : known) {
        EXPECT_EQ(name_of_result(result.code), result.name);
    }
}

TEST(Results, HaveAnExitCodeOfTheirOwn) {
    for (const Known& result : known) {
        EXPECT_EQ(exit_code_of_result(result.code), result.exit_code) << result.name;
    }
}

TEST(Results, HaveDifferentMeaningsWithoutAFullStop) {
    std::set<std::string> meanings;
    for (const Known& result : known) {
        const std::string meaning = meaning_of_result(result.code);
        ASSERT_FALSE(meaning.empty()) << result.name;
        EXPECT_NE(meaning.back(), '.') << meaning;
        EXPECT_TRUE(meanings.insert(meaning).second) << meaning;
    }
}

TEST(Results, WithoutANameShowTheirNumber) {
    EXPECT_EQ(name_of_result(77), "result 77");
    EXPECT_EQ(name_of_result(-9), "result -9");
    EXPECT_NE(meaning_of_result(77).find("77"), std::string::npos);
}

TEST(Results, BetweenZeroAndMinusTwelveHaveAnExitCodeEvenWithoutAName) {
    EXPECT_EQ(exit_code_of_result(-9), 19);
}

TEST(Results, BeyondShareOneExitCode) {
    for (const int32_t result : {2, 77, -13, INT32_MAX, INT32_MIN}) {
        EXPECT_EQ(exit_code_of_result(result), 30) << result;
    }
}

} // namespace
} // namespace desk

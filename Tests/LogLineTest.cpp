// The text that the library writes itself is what snprintf would write, for every kind of line and every integer.

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <vector>

#include "Conversion.h"
#include "FakeHost.h"

#define LOG_SOURCE kManagerSource
#include "ADE_ShotMentor_LogLine.h"

namespace {

// Where numbers get another digit, a sign, or another byte, and the numbers beside them.
std::vector<int32_t> edges() {
    std::vector<int32_t> numbers = {INT_MIN, INT_MIN + 1, INT_MAX, INT_MAX - 1, 0};
    for (int64_t power = 1; power <= INT_MAX; power *= 10) {
        for (const int64_t number : {power - 1, power, power + 1}) {
            numbers.push_back(static_cast<int32_t>(number));
            numbers.push_back(static_cast<int32_t>(-number));
        }
    }
    for (int bit = 0; bit < 31; ++bit) {
        numbers.push_back(1 << bit);
        numbers.push_back(-(1 << bit));
        numbers.push_back((1 << bit) - 1);
    }
    return numbers;
}

template<class... Values>
std::string printed(const char* format, Values... values) {
    char text[ALG_LOG_LINE_SIZE];
    std::snprintf(text, sizeof text, format, values...);
    return text;
}

template<class Put>
std::string put(Put&& into) {
    char text[ALG_LOG_LINE_SIZE];
    return {text, into(text)};
}

TEST(LogLine, WritesDecimalNumbersAsPrintfDoes) {
    for (const int32_t number : edges()) {
        EXPECT_EQ(put([&](char* at) { return put_decimal(at, number); }), printed("%d", number));
    }
}

TEST(LogLine, WritesHexadecimalNumbersAsPrintfDoes) {
    for (const int32_t number : edges()) {
        const auto pattern = static_cast<uint32_t>(number);
        EXPECT_EQ(put([&](char* at) { return put_hexadecimal(at, pattern); }), printed("%x", pattern));
    }
}

TEST(LogLine, DividesByTenExactlyAroundEveryMultipleThatIsNearAPowerOfTwo) {
    for (uint64_t power = 1; power <= UINT32_MAX; power *= 2) {
        for (uint64_t value = power < 25 ? 0 : power - 25; value < power + 25 && value <= UINT32_MAX; ++value) {
            ASSERT_EQ(tenth_of(static_cast<uint32_t>(value)), value / 10) << value;
        }
    }
}

TEST(LogLine, WritesTextsOfAnyLength) {
    for (const size_t length : {0U, 1U, 11U, 12U, 100U}) {
        const std::string text(length, 'x');
        EXPECT_EQ(put([&](char* at) { return put_text(at, text.c_str()); }), text);
    }
}

TEST(LogLine, WritesShortTextsOfUpToElevenBytes) {
    for (size_t length = 0; length <= 11; ++length) {
        const std::string text(length, 'x');
        EXPECT_EQ(put([&](char* at) { return ShortText(text.c_str()).put(at); }), text);
    }
}

TEST(LogLine, KeepsSourceLevelAndLineOfASite) {
    for (const LogSource source : {kManagerSource, kConverterSource, kApproximationSource}) {
        for (const alg_log_level level : {ALG_LOG_LEVEL_PLAIN, ALG_LOG_LEVEL_CYAN, ALG_LOG_LEVEL_ERROR}) {
            for (const unsigned line : {1U, 1024U, 2047U}) {
                const LogSite site = log_site(source, level, line);
                EXPECT_EQ(site >> (kLogLineBits + kLogLevelBits), source);
                EXPECT_EQ(level_of(site), level);
                EXPECT_EQ(site & ((1U << kLogLineBits) - 1), line);
            }
        }
    }
}

TEST(LogLine, KnowsAFileByTheEndOfItsPath) {
    EXPECT_TRUE(names_file("a.cpp", "a.cpp"));
    EXPECT_TRUE(names_file("Src/a.cpp", "a.cpp"));
    EXPECT_FALSE(names_file("Src/ba.cpp", "a.cpp"));
    EXPECT_FALSE(names_file("Src/a.cpp", "a.c"));
    EXPECT_FALSE(names_file("Src/a.c", "a.cpp"));
}

TEST(LogLine, OfTheLibraryNamesALineThatASourceCanHaveAtEveryLevel) {
    FakeHost host;
    host.receive(request_announcing(1000, SM_FUNCTION_RECEIVE_PRESET, pattern(504)));
    host.receive(pattern(488));
    host.receive(list_request());
    ASSERT_GT(host.lines.size(), 80U);
    for (const LogLine& line : host.lines) {
        EXPECT_GE(line.line, 1) << line.text;
        EXPECT_LE(line.line, 2047) << line.text;
    }
}

// ---- Every shape of a trace's line ----------------------------------------------------------------------------------

class TraceShapes : public testing::Test {
  protected:
    void expect_line(const char* level, const std::string& text) {
        const std::string line = std::string(level) + " ALG_SM " + text;
        const Transcript log = host.log();
        EXPECT_NE(std::find(log.begin(), log.end(), line), log.end()) << line;
    }

    FakeHost host;
};

TEST_F(TraceShapes, TowardsThePhoneAreWhatPrintfWrites) {
    for (const int32_t number : edges()) {
        tag_custom_info camera{};
        camera.mode = SM_MODE_MANUAL;
        camera.av_index = number;
        camera.k_value = number;
        camera.smart_filter = number;
        camera.multi_af_pos_x = number;
        camera.cs_info.color_style = number;
        camera.cs_info.cs_color[9].cs_color_r = number;
        sm_tag_custom_info phone{};
        host.transcript.clear();
        ADE_PRO_CreateProFilm(&camera, &phone);
        const auto pattern = static_cast<uint32_t>(number);
        const int32_t red = phone.cs_info.cs_color[9].cs_color_r;
        expect_line("PLAIN", printed("av_index :(0x%x)\t =>(%d)", pattern, phone.av_index));
        expect_line("PLAIN", printed("smart_filter :(%d)\t =>(%d)", number, number));
        expect_line("PLAIN", printed("multi_af_pos_x :(%d)\t =>(-)", number));
        expect_line("YELLOW", printed("k_value:(%d)", number));
        expect_line("YELLOW", printed("(C1)cs_color_r :(%d)\t =>(%d)", number, red));
        expect_line("CYAN", printed("color_style :(%d)", number));
    }
}

TEST_F(TraceShapes, TowardsTheCameraAreWhatPrintfWrites) {
    for (const int32_t number : edges()) {
        sm_tag_custom_info phone{};
        phone.mode = SM_MODE_MANUAL;
        phone.av_index = number;
        phone.k_value = number;
        phone.smart_filter = number;
        phone.multi_af_pos_x = number;
        phone.cs_info.color_style = number;
        phone.cs_info.cs_color[9].cs_color_r = number;
        phone.made_id = SM_MADE_MAKER_KORVEL | SM_MADE_FAMILY_KT;
        tag_custom_info camera{};
        host.transcript.clear();
        ADE_PRO_CreateSysCustom(&phone, &camera);
        const int32_t red = camera.cs_info.cs_color[9].cs_color_r;
        expect_line("PLAIN", printed("av_index :(%d)\t =>(0x%x)", number, static_cast<uint32_t>(camera.av_index)));
        expect_line("PLAIN", printed("smart_filter :(%d)\t =>(%d)", number, camera.smart_filter));
        expect_line("PLAIN", printed("multi_af_pos_x :(-)\t =>(%d)", number));
        expect_line("PLAIN", printed("k_value:(%d)", number));
        expect_line("PLAIN", printed("(C1)cs_color_r :(%d)\t => (%d)", number, red));
        expect_line("PLAIN", printed("color_style :(%d)", camera.cs_info.color_style));
    }
}

TEST_F(TraceShapes, OfAPacketIsWhatPrintfWrites) {
    host.transcript.clear();
    host.receive(request_announcing(600000, SM_FUNCTION_RECEIVE_PRESET, pattern(504)));
    const Transcript log = host.log();
    const std::string line =
        printed("GREEN ALG_SMM ADE_ShotMentor_Combine_BTData length=%d, sm_BT_combine_length=%d", 512, 512);
    EXPECT_NE(std::find(log.begin(), log.end(), line), log.end());
}

} // namespace

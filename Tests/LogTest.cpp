// The log facility: what one line looks like in the system log and on standard error, at each of the six levels and
// under any tag, and that the library's own lines are made with it.
#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#define ALG_LOG_TAG "ALG_SMM"
#include "ADE_ShotMentor_Log.h"
#include "FakeHost.h"

namespace {

const std::string color_reset = "\033[m\n";

struct Level {
    alg_log_level level;
    const char* name;
    std::string color;
    int priority;
    size_t longest_message;
};

const Level levels[] = {
    {ALG_LOG_LEVEL_PLAIN, "PLAIN", "\033[m", 4, 247},     {ALG_LOG_LEVEL_GREEN, "GREEN", "\033[32m", 4, 245},
    {ALG_LOG_LEVEL_YELLOW, "YELLOW", "\033[33m", 4, 245}, {ALG_LOG_LEVEL_CYAN, "CYAN", "\033[36m", 4, 245},
    {ALG_LOG_LEVEL_WARN, "WARN", "\033[31m", 4, 245},     {ALG_LOG_LEVEL_ERROR, "ERROR", "\033[31m", 6, 245},
};

// What the action writes to standard error.
std::string written_to_standard_error(const std::function<void()>& action) {
    testing::internal::CaptureStderr();
    action();
    std::fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

// Logs one finished message and returns how it arrived. The copies of errors stay out of the test's own output.
LogLine logged(alg_log_level level, const char* tag, const std::string& message) {
    FakeHost host;
    written_to_standard_error([&] { ALG_LOG(level, tag, "%s", message.c_str()); });
    EXPECT_EQ(host.lines.size(), 1u);
    return host.lines.empty() ? LogLine{} : host.lines.front();
}

void expect_no_call_site(const LogLine& line) {
    EXPECT_EQ(line.file, "");
    EXPECT_EQ(line.function, "");
    EXPECT_EQ(line.line, 0);
}

// ---- One line -------------------------------------------------------------------------------------------------------

TEST(Log, GivesEachLevelItsColorAndPriorityInLogBuffer3) {
    for (const Level& level : levels) {
        SCOPED_TRACE(level.name);
        const LogLine line = logged(level.level, "ALG_SMM", "seven sheep\n");
        EXPECT_EQ(line.buffer, 3);
        EXPECT_EQ(line.priority, level.priority);
        EXPECT_EQ(line.tag, "ALG_SMM");
        EXPECT_EQ(line.format, "%s: %s(%d) > %s");
        EXPECT_EQ(line.text, level.color + "seven sheep" + color_reset);
    }
}

TEST(Log, FormatsItsArgumentsLikePrintf) {
    FakeHost host;
    ALG_LOG(ALG_LOG_LEVEL_GREEN, "ALG_SM", "%s 0x%x %05d %c%%\n", "hex", 0x1F, 42, 'z');
    ASSERT_EQ(host.lines.size(), 1u);
    EXPECT_EQ(host.lines[0].text, "\033[32mhex 0x1f 00042 z%\033[m\n");
}

TEST(Log, OffersEachLevelByNameUnderTheTagOfItsUnit) {
    FakeHost host;
    const std::string copy = written_to_standard_error([] {
        ALG_LOG_PLAIN("%d\n", 1);
        ALG_LOG_GREEN("%d\n", 2);
        ALG_LOG_YELLOW("%d\n", 3);
        ALG_LOG_CYAN("%d\n", 4);
        ALG_LOG_WARN("%d\n", 5);
        ALG_LOG_ERROR("%d\n", 6);
    });
    EXPECT_EQ(host.transcript, (Transcript{"PLAIN ALG_SMM 1", "GREEN ALG_SMM 2", "YELLOW ALG_SMM 3", "CYAN ALG_SMM 4",
                                           "WARN ALG_SMM 5", "ERROR ALG_SMM 6"}));
    EXPECT_EQ(copy, "[ALG_SMM   ] \033[31m6\033[m\n");
}

int log_from_a_function_of_its_own() {
    ALG_LOG_CYAN("here\n");
    return __LINE__ - 1;
}

TEST(Log, NamesTheCallersFileFunctionAndLine) {
    FakeHost host;
    const int line = log_from_a_function_of_its_own();
    ASSERT_EQ(host.lines.size(), 1u);
    EXPECT_EQ(host.lines[0].file, "LogTest.cpp");
    EXPECT_EQ(host.lines[0].function, "log_from_a_function_of_its_own");
    EXPECT_EQ(host.lines[0].line, line);
}

TEST(Log, EvaluatesItsArgumentsOnce) {
    FakeHost host;
    int asked = 0;
    ALG_LOG(ALG_LOG_LEVEL_PLAIN, "ALG_SM", "%d\n", ++asked);
    ALG_LOG(ALG_LOG_LEVEL_PLAIN, "BTLOG", "%d\n", ++asked);
    EXPECT_EQ(asked, 2);
    EXPECT_EQ(host.lines.size(), 2u);
}

TEST(Log, IsOneStatementInAnIfWithoutBraces) {
    FakeHost host;
    for (const bool first : {true, false}) {
        // NOLINTBEGIN(readability-braces-around-statements)
        if (first)
            ALG_LOG_PLAIN("first\n");
        else
            ALG_LOG_PLAIN("second\n");
        // NOLINTEND(readability-braces-around-statements)
    }
    EXPECT_EQ(host.transcript, (Transcript{"PLAIN ALG_SMM first", "PLAIN ALG_SMM second"}));
}

// ---- Newlines and length --------------------------------------------------------------------------------------------

TEST(Log, TakesExactlyOneNewlineOffTheEndOfAMessage) {
    struct Case {
        const char* name;
        std::string message;
        std::string kept;
    };
    const Case cases[] = {
        {"no newline", "text", "text"},
        {"one newline", "text\n", "text"},
        {"two newlines", "text\n\n", "text\n"},
        {"three newlines", "text\n\n\n", "text\n\n"},
        {"a newline inside", "text\nmore", "text\nmore"},
        {"a newline in front", "\ntext", "\ntext"},
        {"a blank at the end", "text \n", "text "},
        {"a carriage return at the end", "text\r\n", "text\r"},
        {"nothing but a newline", "\n", ""},
        {"nothing but two newlines", "\n\n", "\n"},
    };
    for (const Level& level : levels) {
        for (const Case& each : cases) {
            SCOPED_TRACE(std::string(level.name) + ", " + each.name);
            EXPECT_EQ(logged(level.level, "ALG_SM", each.message).text, level.color + each.kept + color_reset);
        }
    }
}

TEST(Log, KeepsTheWholeColorInFrontOfAnEmptyMessage) {
    for (const Level& level : levels) {
        SCOPED_TRACE(level.name);
        EXPECT_EQ(logged(level.level, "ALG_SM", "").text, level.color + color_reset);
    }
}

TEST(Log, CutsAMessageAt245CharactersAndAPlainOneAt247) {
    for (const Level& level : levels) {
        for (const size_t length : {243u, 244u, 245u, 246u, 247u, 248u, 250u, 255u, 256u, 257u, 1000u}) {
            SCOPED_TRACE(std::string(level.name) + ", " + std::to_string(length) + " characters");
            const std::string text = logged(level.level, "ALG_SM", std::string(length, 'x')).text;
            const size_t kept = std::min(length, level.longest_message);
            EXPECT_EQ(text, level.color + std::string(kept, 'x') + color_reset);
            EXPECT_LE(text.size(), 255u);
        }
    }
}

TEST(Log, LooksForTheNewlineAfterTheCut) {
    struct Case {
        const char* name;
        int beyond_longest; // letters in front of the newline, counted from the longest message
        const char* tail;
        int kept_beyond_longest;
        const char* kept_tail;
    };
    const Case cases[] = {
        {"the newline is the last character with room", -1, "\n", -1, ""},
        {"the newline is cut off", 0, "\n", 0, ""},
        {"the newline is the last character kept of a longer message", -1, "\nmore", -1, ""},
        {"of two newlines the second is cut off and the first is at the end", -1, "\n\n", -1, ""},
        {"of two newlines both have room", -2, "\n\n", -2, "\n"},
    };
    for (const Level& level : levels) {
        for (const Case& each : cases) {
            SCOPED_TRACE(std::string(level.name) + ", " + each.name);
            const auto letters = [&level](int beyond) {
                return std::string(level.longest_message - static_cast<size_t>(-beyond), 'x');
            };
            const std::string message = letters(each.beyond_longest) + each.tail;
            const std::string kept = letters(each.kept_beyond_longest) + each.kept_tail;
            EXPECT_EQ(logged(level.level, "ALG_SM", message).text, level.color + kept + color_reset);
        }
    }
}

// ---- Standard error -------------------------------------------------------------------------------------------------

TEST(Log, CopiesErrorsAndNothingElseToStandardError) {
    for (const Level& level : levels) {
        SCOPED_TRACE(level.name);
        FakeHost host;
        const std::string copy = written_to_standard_error([&] { ALG_LOG(level.level, "ALG_SM", "no %s\n", "film"); });
        EXPECT_EQ(copy, level.level == ALG_LOG_LEVEL_ERROR ? "[ALG_SM    ] \033[31mno film\033[m\n" : "");
    }
}

TEST(Log, CopiesTheVeryTextOfTheSystemLogBehindTheTagInTenColumns) {
    struct Case {
        const char* tag;
        const char* column;
    };
    const Case cases[] = {
        {"", "[          ] "},
        {"A", "[A         ] "},
        {"ALG_SMM", "[ALG_SMM   ] "},
        {"TENLETTERS", "[TENLETTERS] "},
        {"ELEVENCHARS", "[ELEVENCHARS] "},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.tag);
        FakeHost host;
        const std::string copy = written_to_standard_error(
            [&] { ALG_LOG(ALG_LOG_LEVEL_ERROR, each.tag, "%s\n\n", std::string(239, 'x').c_str()); });
        ASSERT_EQ(host.lines.size(), 1u);
        EXPECT_EQ(host.lines[0].text, "\033[31m" + std::string(239, 'x') + "\n\033[m\n");
        EXPECT_EQ(copy, each.column + host.lines[0].text);
    }
}

// ---- Tags -----------------------------------------------------------------------------------------------------------

TEST(Log, LeavesTheCallSiteOutUnderATagWithPERF) {
    for (const char* tag : {"PERF", "MYPERF", "PERF_ALG", "X_PERF_Y"}) {
        for (const Level& level : levels) {
            SCOPED_TRACE(std::string(tag) + ", " + level.name);
            const LogLine line = logged(level.level, tag, "12 ms\n");
            EXPECT_EQ(line.buffer, 3);
            EXPECT_EQ(line.priority, level.priority);
            EXPECT_EQ(line.tag, tag);
            EXPECT_EQ(line.format, "%s");
            EXPECT_EQ(line.text, level.color + "12 ms" + color_reset);
            expect_no_call_site(line);
        }
    }
}

TEST(Log, HandsTheCallersFormatAndArgumentsOverUnderATagWithBTLOG) {
    for (const char* tag : {"BTLOG", "X_BTLOG_Y", "MYBTLOG", "BTLOGPERF", "PERF_BTLOG"}) {
        for (const Level& level : levels) {
            if (level.level == ALG_LOG_LEVEL_ERROR) {
                continue;
            }
            SCOPED_TRACE(std::string(tag) + ", " + level.name);
            FakeHost host;
            const std::string copy =
                written_to_standard_error([&] { ALG_LOG(level.level, tag, "%s has %d bytes\n\n", "packet", 20); });
            ASSERT_EQ(host.lines.size(), 1u);
            EXPECT_EQ(host.lines[0].buffer, 3);
            EXPECT_EQ(host.lines[0].priority, 4);
            EXPECT_EQ(host.lines[0].tag, tag);
            EXPECT_EQ(host.lines[0].format, "%s has %d bytes\n\n");
            EXPECT_EQ(host.lines[0].text, "packet has 20 bytes\n\n");
            expect_no_call_site(host.lines[0]);
            EXPECT_EQ(copy, "");
        }
    }
}

TEST(Log, DoesNotCutWhatItHandsOverAsItIs) {
    FakeHost host;
    const std::string message(1000, 'x');
    ALG_LOG(ALG_LOG_LEVEL_GREEN, "BTLOG", "<%s>", message.c_str());
    ASSERT_EQ(host.lines.size(), 1u);
    EXPECT_EQ(host.lines[0].text, "<" + message + ">");
}

TEST(Log, FormatsErrorsUnderATagWithBTLOGToo) {
    for (const char* tag : {"BTLOG", "X_BTLOG_Y", "BTLOGPERF"}) {
        SCOPED_TRACE(tag);
        FakeHost host;
        const std::string copy = written_to_standard_error([&] { ALG_LOG(ALG_LOG_LEVEL_ERROR, tag, "lost %d\n", 3); });
        ASSERT_EQ(host.lines.size(), 1u);
        EXPECT_EQ(host.lines[0].buffer, 3);
        EXPECT_EQ(host.lines[0].priority, 6);
        EXPECT_EQ(host.lines[0].tag, tag);
        EXPECT_EQ(host.lines[0].format, "%s");
        EXPECT_EQ(host.lines[0].text, "\033[31mlost 3\033[m\n");
        expect_no_call_site(host.lines[0]);
        char column[32];
        std::snprintf(column, sizeof column, "[%-10s] ", tag);
        EXPECT_EQ(copy, std::string(column) + "\033[31mlost 3\033[m\n");
    }
}

TEST(Log, KnowsTheTwoWordsInATagThatIsMadeAtRunTime) {
    const std::string word = std::to_string(7) + "BT";
    const std::string bare = word + "LOG";
    EXPECT_EQ(logged(ALG_LOG_LEVEL_PLAIN, bare.c_str(), "as it is\n").text, "as it is\n");
    const std::string without_site = std::to_string(7) + "PERF";
    const LogLine line = logged(ALG_LOG_LEVEL_PLAIN, without_site.c_str(), "colored\n");
    EXPECT_EQ(line.text, "\033[mcolored\033[m\n");
    expect_no_call_site(line);
}

TEST(Log, TreatsEveryOtherTagLikeTheLibrarysOwn) {
    for (const char* tag : {"", "ALG_SM", "btlog", "perf", "BTLO", "BT_LOG", "PER", "P", "REPF", "LOGBT"}) {
        SCOPED_TRACE(tag);
        const LogLine line = logged(ALG_LOG_LEVEL_YELLOW, tag, "text\n");
        EXPECT_EQ(line.tag, tag);
        EXPECT_EQ(line.format, "%s: %s(%d) > %s");
        EXPECT_EQ(line.file, "LogTest.cpp");
        EXPECT_NE(line.function, "");
        EXPECT_GT(line.line, 0);
        EXPECT_EQ(line.text, "\033[33mtext\033[m\n");
    }
}

TEST(Log, LooksForTheWordsInAConstantTagAsInOneMadeAtRunTime) {
    FakeHost host;
    ALG_LOG(ALG_LOG_LEVEL_WARN, "X_BTLOG_Y", "bare %d\n", 1);
    ALG_LOG(ALG_LOG_LEVEL_WARN, "MYPERF", "no site %d\n", 2);
    ALG_LOG(ALG_LOG_LEVEL_WARN, "BTLOGPERF", "bare %d\n", 3);
    ALG_LOG(ALG_LOG_LEVEL_WARN, "ALG_SM", "site %d\n", 4);
    ASSERT_EQ(host.lines.size(), 4u);
    EXPECT_EQ(host.lines[0].text, "bare 1\n");
    EXPECT_EQ(host.lines[1].text, "\033[31mno site 2\033[m\n");
    EXPECT_EQ(host.lines[1].format, "%s");
    EXPECT_EQ(host.lines[2].text, "bare 3\n");
    EXPECT_EQ(host.lines[3].text, "\033[31msite 4\033[m\n");
    EXPECT_EQ(host.lines[3].file, "LogTest.cpp");
}

// ---- Lines from anywhere --------------------------------------------------------------------------------------------

TEST(Log, MayBeUsedInsideTheHostsOwnLogCallback) {
    FakeHost host;
    host.watch = [](const std::string& event) {
        if (event.find("inner") == std::string::npos) {
            ALG_LOG_ERROR("inner of %zu\n", event.size());
            ALG_LOG(ALG_LOG_LEVEL_GREEN, "PERF", "inner %s\n", std::string(300, 'x').c_str());
        }
    };
    const std::string copy = written_to_standard_error([] { ALG_LOG_ERROR("outer %d\n", 7); });
    ASSERT_EQ(host.lines.size(), 3u);
    EXPECT_EQ(host.lines[0].text, "\033[31mouter 7\033[m\n");
    EXPECT_EQ(host.lines[1].text, "\033[31minner of 21\033[m\n"); // "ERROR ALG_SMM outer 7" has 21 characters
    EXPECT_EQ(host.lines[2].text, "\033[32minner " + std::string(239, 'x') + "\033[m\n");
    EXPECT_EQ(copy, "[ALG_SMM   ] \033[31minner of 21\033[m\n[ALG_SMM   ] \033[31mouter 7\033[m\n");
}

TEST(LibraryLog, LeavesTheLibrarysLineAsItIsWhenTheCallbackLogsItself) {
    FakeHost host;
    host.watch = [](const std::string& event) {
        if (event.find("inner") == std::string::npos) {
            ALG_LOG_ERROR("inner\n");
        }
    };
    const std::string copy = written_to_standard_error([&] { host.receive(request(257)); });
    EXPECT_EQ(copy, "[ALG_SMM   ] \033[31minner\033[m\n"
                    "[ALG_SMM   ] \033[31mERR : RESULT ADE_ShotMentor_Receive_Manager funcN=257\033[m\n");
}

std::string line_of_thread(char letter, int number) {
    return std::string(static_cast<size_t>(20 + number % 200), letter) + std::to_string(number);
}

TEST(Log, KeepsTheLinesOfTwoThreadsApart) {
    constexpr int lines_of_each = 2000;
    FakeHost host;
    host.is_on_file = false; // in which order they arrive differs from run to run
    const auto log_lines = [](char letter) {
        for (int number = 0; number < lines_of_each; ++number) {
            ALG_LOG(ALG_LOG_LEVEL_GREEN, letter == 'a' ? "ALG_SM" : "ALG_SMM", "%s\n",
                    line_of_thread(letter, number).c_str());
        }
    };
    std::thread other(log_lines, 'b');
    log_lines('a');
    other.join();
    int next_of_a = 0;
    int next_of_b = 0;
    ASSERT_EQ(host.lines.size(), 2u * lines_of_each);
    for (const LogLine& line : host.lines) {
        const bool is_of_a = line.tag == "ALG_SM";
        const std::string expected = is_of_a ? line_of_thread('a', next_of_a++) : line_of_thread('b', next_of_b++);
        ASSERT_EQ(line.text, "\033[32m" + expected + "\033[m\n");
    }
    EXPECT_EQ(next_of_a, lines_of_each);
}

// ---- Tags and messages that the library itself does not use ---------------------------------------------------------

TEST(Log, TakesATagOfAnyLengthWhole) {
    for (const size_t length : {11u, 255u, 256u, 300u, 5000u}) {
        SCOPED_TRACE(length);
        const std::string tag(length, 't');
        FakeHost host;
        const std::string copy =
            written_to_standard_error([&] { ALG_LOG(ALG_LOG_LEVEL_ERROR, tag.c_str(), "text\n"); });
        ASSERT_EQ(host.lines.size(), 1u);
        EXPECT_EQ(host.lines[0].tag, tag);
        EXPECT_EQ(host.lines[0].file, "LogTest.cpp");
        EXPECT_EQ(copy, "[" + tag + "] \033[31mtext\033[m\n");
    }
}

TEST(Log, FindsTheTwoWordsAtTheEndOfALongTag) {
    const std::string bare = std::string(400, 't') + "BTLOG";
    EXPECT_EQ(logged(ALG_LOG_LEVEL_PLAIN, bare.c_str(), "as it is\n").text, "as it is\n");
    const std::string without_site = std::string(400, 't') + "PERF";
    expect_no_call_site(logged(ALG_LOG_LEVEL_PLAIN, without_site.c_str(), "text\n"));
}

TEST(Log, TakesNeitherATagNorAMessageForAFormat) {
    const char* const wild = "%s%n%d 100%";
    FakeHost host;
    const std::string copy = written_to_standard_error([&] { ALG_LOG(ALG_LOG_LEVEL_ERROR, wild, "%s\n", wild); });
    ASSERT_EQ(host.lines.size(), 1u);
    EXPECT_EQ(host.lines[0].tag, wild);
    EXPECT_EQ(host.lines[0].text, std::string("\033[31m") + wild + "\033[m\n");
    EXPECT_EQ(copy, std::string("[") + wild + "] \033[31m" + wild + "\033[m\n");
}

TEST(Log, EndsAMessageAtItsNul) {
    for (const Level& level : levels) {
        SCOPED_TRACE(level.name);
        FakeHost host;
        const std::string copy = written_to_standard_error([&] {
            ALG_LOG(level.level, "ALG_SM", "%c", '\0');
            ALG_LOG(level.level, "ALG_SM", "seen%cunseen\n", '\0');
            ALG_LOG(level.level, "ALG_SM", "seen\n%cunseen", '\0');
        });
        ASSERT_EQ(host.lines.size(), 3u);
        EXPECT_EQ(host.lines[0].text, level.color + color_reset);
        EXPECT_EQ(host.lines[1].text, level.color + "seen" + color_reset);
        EXPECT_EQ(host.lines[2].text, level.color + "seen" + color_reset);
    }
}

TEST(Log, EndsAHandedOverMessageWhereTheHostDoes) {
    FakeHost host;
    ALG_LOG(ALG_LOG_LEVEL_GREEN, "BTLOG", "%c%s", '\0', "unseen");
    ASSERT_EQ(host.lines.size(), 1u);
    EXPECT_EQ(host.lines[0].format, "%c%s");
    EXPECT_EQ(host.lines[0].text, std::string(1, '\0') + "unseen");
}

TEST(Log, KeepsEveryCharacterButTheLastNewline) {
    std::string message;
    for (int character = 1; character < 256; ++character) {
        message += character == '%' ? '_' : static_cast<char>(character);
    }
    const std::string first = message.substr(0, 128);
    const std::string second = message.substr(128);
    EXPECT_EQ(logged(ALG_LOG_LEVEL_CYAN, "ALG_SM", first).text, "\033[36m" + first + color_reset);
    EXPECT_EQ(logged(ALG_LOG_LEVEL_CYAN, "ALG_SM", second).text, "\033[36m" + second + color_reset);
}

// ---- The library's own lines ----------------------------------------------------------------------------------------

// The level whose color a line starts with. Two levels share red; their priority tells them apart.
const Level* level_of(const LogLine& line) {
    const Level* found = nullptr;
    for (const Level& level : levels) {
        const bool matches = line.text.compare(0, level.color.size(), level.color) == 0;
        if (matches && line.priority == level.priority) {
            found = &level;
        }
    }
    return found;
}

TEST(LibraryLog, WritesEveryLineWithItsCallSiteInTheColorsOfItsLevel) {
    FakeHost host;
    host.presets = {preset(1), preset(2, 1)};
    written_to_standard_error([&] {
        host.receive(list_request());
        host.receive(request(SM_FUNCTION_RECEIVE_PRESET, pattern(744 + 100)));
        host.receive(delete_request({{0, 1}}));
        host.receive(request(200));
        host.link_up = false;
        host.receive(list_request());
    });
    ASSERT_GT(host.lines.size(), 300u); // four records are converted, 71 lines and more each
    for (const LogLine& line : host.lines) {
        SCOPED_TRACE(line.text);
        EXPECT_EQ(line.buffer, 3);
        EXPECT_NE(level_of(line), nullptr);
        EXPECT_TRUE(line.tag == "ALG_SMM" || line.tag == "ALG_SM") << line.tag;
        EXPECT_EQ(line.format, "%s: %s(%d) > %s");
        EXPECT_NE(line.file, "");
        EXPECT_EQ(line.file.find('/'), std::string::npos) << line.file;
        EXPECT_NE(line.function, "");
        EXPECT_GT(line.line, 0);
        EXPECT_EQ(line.text.substr(line.text.size() - color_reset.size()), color_reset);
        EXPECT_LE(line.text.size(), 255u);
    }
}

TEST(LibraryLog, PutsTheCallSiteOfTheLibrarysSourceIntoALine) {
    FakeHost host;
    host.receive(state_on_request());
    ASSERT_FALSE(host.lines.empty());
    EXPECT_EQ(host.lines[0].text, "\033[mADE_ShotMentor_Receive_Manager funcN=255\033[m\n");
    EXPECT_EQ(host.lines[0].file.rfind("ADE_ShotMentor_", 0), 0u) << host.lines[0].file;
}

TEST(LibraryLog, CopiesARefusalToStandardErrorWordForWord) {
    FakeHost host;
    const std::string copy = written_to_standard_error([&] { host.receive(request(257)); });
    EXPECT_EQ(copy, "[ALG_SMM   ] \033[31mERR : RESULT ADE_ShotMentor_Receive_Manager funcN=257\033[m\n");
    ASSERT_EQ(host.lines.size(), 1u);
    EXPECT_EQ(host.lines[0].priority, 6);
    EXPECT_EQ(host.lines[0].text, "\033[31mERR : RESULT ADE_ShotMentor_Receive_Manager funcN=257\033[m\n");
}

TEST(LibraryLog, KeepsAWarningInTheSystemLogAlone) {
    FakeHost host;
    host.link_up = false;
    const std::string copy = written_to_standard_error([&] { ADE_SM_Send_List(); });
    EXPECT_EQ(copy, "");
    ASSERT_EQ(host.lines.size(), 2u);
    EXPECT_EQ(host.lines[1].priority, 4);
    EXPECT_EQ(host.lines[1].text, "\033[31mBT state : off\033[m\n");
}

TEST(LibraryLog, NeedsNoMemoryOfItsOwnAndSoReportsAnExhaustedAllocator) {
    FakeHost host;
    host.refuse_allocation(1, true);
    written_to_standard_error([&] { EXPECT_EQ(host.receive(state_on_request()), SM_RETURN_FAIL); });
    EXPECT_EQ(host.allocations_asked(), 1); // the request's buffer; none of the four lines asks for more
    EXPECT_EQ(host.transcript, (Transcript{
                                   "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager funcN=255",
                                   "PLAIN ALG_SMM ADE_ShotMentor_Receive_Manager sm_total_length=8",
                                   "PLAIN ALG_SMM shotmentor_p_ReceiveData add=null",
                                   "ERROR ALG_SMM ERR ADE_ShotMentor_Combine_BTData ",
                               }));
}

TEST(LibraryLog, KeepsOrdinaryRequestsOffStandardError) {
    FakeHost host;
    host.presets = {preset(1)};
    const std::string copy = written_to_standard_error([&] {
        EXPECT_EQ(host.receive(list_request()), SM_RETURN_TRUE);
        EXPECT_EQ(host.receive(state_off_request(SM_RETURN_TRUE)), SM_RETURN_TRUE);
    });
    EXPECT_EQ(copy, "");
    EXPECT_EQ(host.replies.size(), 1u);
}

// ---- Files without a folder -----------------------------------------------------------------------------------------

// What follows is compiled under names of its own: as a file without a folder, in a folder of the root, and deep below.

// clang-format off
#line 100 "plain.cpp"
void log_from_a_file_without_a_folder() { ALG_LOG_PLAIN("text\n"); }
#line 200 "/root.cpp"
void log_from_a_file_in_the_root() { ALG_LOG_PLAIN("text\n"); }
#line 300 "../a/b.c/deep name.cpp"
void log_from_a_file_deep_below() { ALG_LOG_PLAIN("text\n"); }
#line 400 "LogTest.cpp"
// clang-format on

TEST(Log, NamesAFileByWhatFollowsItsLastSlash) {
    FakeHost host;
    log_from_a_file_without_a_folder();
    log_from_a_file_in_the_root();
    log_from_a_file_deep_below();
    ASSERT_EQ(host.lines.size(), 3u);
    EXPECT_EQ(host.lines[0].file, "plain.cpp");
    EXPECT_EQ(host.lines[0].line, 100);
    EXPECT_EQ(host.lines[1].file, "root.cpp");
    EXPECT_EQ(host.lines[1].line, 200);
    EXPECT_EQ(host.lines[2].file, "deep name.cpp");
    EXPECT_EQ(host.lines[2].line, 300);
}

} // namespace

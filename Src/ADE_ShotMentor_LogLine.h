// How the library's own units log: the lines that the levels of ADE_ShotMentor_Log.h make, from call sites of a few
// instructions. Text and integers can also be put together without the C library's formatter, for the lines that there
// are many of. Internal to the library. A unit names itself before it includes this:
//     #define LOG_SOURCE kManagerSource
//     #include "ADE_ShotMentor_LogLine.h"
#ifndef ADE_SHOTMENTOR_LOG_LINE_H
#define ADE_SHOTMENTOR_LOG_LINE_H

#define ALG_LOG_LINE(level, ...) LOG_LINE(LOG_SOURCE, level, __VA_ARGS__)

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include "ADE_ShotMentor_Log.h"

// ---- Where a line comes from ----------------------------------------------------------------------------------------

// Arrays and not pointers, so that the table needs no relocation.
struct LogSourceNames {
    char tag[8];
    char file[36];
};

// The line with which the converter names the records that the manager exchanges has the manager's tag.
enum LogSource { kManagerSource, kConverterSource, kConverterSourceForManager, kApproximationSource };

inline constexpr LogSourceNames kLogSources[] = {
    {"ALG_SMM", "ADE_ShotMentor_Manager.cpp"},
    {"ALG_SM", "ADE_ShotMentor_Converter.cpp"},
    {"ALG_SMM", "ADE_ShotMentor_Converter.cpp"},
    {"ALG_SM", "ADE_ShotMentor_Approximation.cpp"},
};

// A call site in 16 bits, which one instruction loads: the source in bits 14 and 15, the level in 11 to 13, the line.
using LogSite = uint16_t;
constexpr unsigned kLogLineBits = 11;
constexpr unsigned kLogLevelBits = 3;
static_assert(ALG_LOG_LEVELS <= 1 << kLogLevelBits);
static_assert(sizeof kLogSources / sizeof kLogSources[0] <= 1 << (16 - kLogLineBits - kLogLevelBits));

constexpr LogSite log_site(LogSource source, alg_log_level level, unsigned line) {
    const unsigned source_and_level = unsigned{source} << kLogLevelBits | unsigned{level};
    return static_cast<LogSite>(source_and_level << kLogLineBits | line);
}

constexpr alg_log_level level_of(LogSite site) {
    return static_cast<alg_log_level>(site >> kLogLineBits & ((1U << kLogLevelBits) - 1));
}

// Whether a path ends with a file's name.
constexpr bool names_file(const char* path, const char* file) {
    const char* name = path;
    for (const char* at = path; *at != '\0'; ++at) {
        name = *at == '/' ? at + 1 : name;
    }
    for (; *name != '\0' && *name == *file; ++name) {
        ++file;
    }
    return *name == *file;
}

// ---- Text without the formatter -------------------------------------------------------------------------------------

// Each writes at `at` and returns where it ended, without a NUL.

inline char* put_text(char* at, const char* text) {
    for (; *text != '\0'; ++text) {
        *at = *text;
        ++at;
    }
    return at;
}

// A text of at most 11 bytes, which is copied whole in a few instructions: what follows it overwrites its spare bytes.
class ShortText {
  public:
    constexpr ShortText(const char* text) {
        for (; text[length_] != '\0'; ++length_) {
            text_[length_] = text[length_];
        }
    }

    char* put(char* at) const {
        memcpy(at, text_, sizeof text_);
        return at + length_;
    }

  private:
    char text_[11] = {};
    uint8_t length_ = 0;
};

// value / 10, exactly, for every value. Compilers that optimise for size call a function of 600 bytes for a division.
constexpr uint32_t tenth_of(uint32_t value) {
    return static_cast<uint32_t>(uint64_t{value} * 0xCCCCCCCD >> 35);
}

inline char* put_decimal(char* at, int32_t value) {
    uint32_t rest = static_cast<uint32_t>(value);
    if (value < 0) {
        *at = '-';
        ++at;
        rest = 0 - rest;
    }
    char digits[10]; // the last one first
    int count = 0;
    do {
        digits[count] = static_cast<char>('0' + (rest - 10 * tenth_of(rest)));
        ++count;
        rest = tenth_of(rest);
    } while (rest != 0);
    while (count > 0) {
        --count;
        *at = digits[count];
        ++at;
    }
    return at;
}

inline char* put_hexadecimal(char* at, uint32_t value) {
    int shift = 28;
    while (shift > 0 && value >> shift == 0) {
        shift -= 4;
    }
    for (; shift >= 0; shift -= 4) {
        const uint32_t digit = value >> shift & 0xF;
        *at = static_cast<char>(digit < 10 ? '0' + digit : 'a' + (digit - 10));
        ++at;
    }
    return at;
}

// ---- The line -------------------------------------------------------------------------------------------------------

// Logs a finished line.
inline void print_line(LogSite site, const char* function, const char* text) {
    const LogSourceNames& source = kLogSources[site >> (kLogLineBits + kLogLevelBits)];
    alg_log_print(level_of(site), source.tag, source.file, function, site & ((1U << kLogLineBits) - 1), text);
}

// Logs one line.
__attribute__((format(printf, 3, 4))) inline void log_line(LogSite site, const char* function, const char* format,
                                                           ...) {
    char text[ALG_LOG_LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    alg_log_compose(text, level_of(site), format, arguments);
    va_end(arguments);
    print_line(site, function, text);
}

#define LOG_LINE(source, level, ...)                                                                                   \
    do {                                                                                                               \
        static_assert(names_file(__FILE__, kLogSources[source].file) && __LINE__ < 1 << kLogLineBits);                 \
        log_line(log_site((source), (level), __LINE__), __func__, __VA_ARGS__);                                        \
    } while (0)

#endif

/*
 * The log facility: six levels, used like printf. Each line goes to __dlog_print in the level's terminal colour, with
 * the file, function and line of its call site in front; an error goes to standard error as well.
 *
 *     #define ALG_LOG_TAG "ALG_SMM"
 *     #include "ADE_ShotMentor_Log.h"
 *     ALG_LOG_ERROR("length=%d\n", length);
 *
 * A message may end in one newline, which is taken off: every finished line ends in "\033[m\n". A message longer than
 * 245 characters (ALG_LOG_PLAIN: 247) is cut. Nothing is allocated and nothing is shared, so a level may be used on
 * every path and from any thread.
 *
 * Two words in a tag change the line, and are looked for at compile time where the tag is a constant:
 *   "BTLOG"            every level but ALG_LOG_ERROR hands the caller's format and arguments to __dlog_print unchanged
 *   "BTLOG" or "PERF"  a line that is formatted carries no call site
 */
#ifndef ADE_SHOTMENTOR_LOG_H
#define ADE_SHOTMENTOR_LOG_H

#include <stdarg.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "ADE_ShotMentor_Services.h"

/* The levels. */
typedef enum alg_log_level {
    ALG_LOG_LEVEL_PLAIN,  /* in the terminal's own colour */
    ALG_LOG_LEVEL_GREEN,  /* in green */
    ALG_LOG_LEVEL_YELLOW, /* in yellow */
    ALG_LOG_LEVEL_CYAN,   /* in cyan */
    ALG_LOG_LEVEL_WARN,   /* in red */
    ALG_LOG_LEVEL_ERROR,  /* in red, on standard error as well */
    ALG_LOG_LEVELS        /* how many there are */
} alg_log_level;

/* Constants of a line. */
enum {
    ALG_LOG_BUFFER = 3,        /* log buffer identifier of every line */
    ALG_LOG_LINE_SIZE = 256,   /* the finished line with its NUL */
    ALG_LOG_TEXT_SIZE = 251,   /* colour and message with their NUL; the rest is for the colour reset */
    ALG_LOG_PRIORITY = 4,      /* all levels but ALG_LOG_ERROR */
    ALG_LOG_PRIORITY_ERROR = 6 /* ALG_LOG_ERROR */
};

#ifdef __cplusplus
/* One copy for all units where the language allows it. */
#define ALG_LOG_INLINE inline
#else
#define ALG_LOG_INLINE static inline
#endif

/* What every line ends in. */
#define ALG_LOG_COLOR_RESET "\033[m\n"

/* Returns the escape sequence that starts a line of a level; warnings and errors share theirs. */
ALG_LOG_INLINE const char* alg_log_color(alg_log_level level) {
    static const char colors[ALG_LOG_LEVELS][8] = {"\033[m",   "\033[32m", "\033[33m",
                                                   "\033[36m", "\033[31m", "\033[31m"};
    return colors[level];
}

/* Begins a line in `text` (ALG_LOG_LINE_SIZE bytes) with the level's colour. Returns where the message goes. */
ALG_LOG_INLINE char* alg_log_begin(char* text, alg_log_level level) {
    memcpy(text, alg_log_color(level), 8); /* of which 3 or 5 stay */
    return text + (level == ALG_LOG_LEVEL_PLAIN ? 3 : 5);
}

/* Ends a line whose message ends before `end`: without the message's newline, with the colour reset and a NUL. */
ALG_LOG_INLINE void alg_log_end(char* end) {
    if (end[-1] == '\n') {
        --end;
    }
    memcpy(end, ALG_LOG_COLOR_RESET, sizeof ALG_LOG_COLOR_RESET);
}

/* Builds the line in `text` (ALG_LOG_LINE_SIZE bytes) from the level's colour, the message and the colour reset. */
__attribute__((format(printf, 3, 0))) ALG_LOG_INLINE void alg_log_compose(char* text, alg_log_level level,
                                                                          const char* format, va_list arguments) {
    char* const message = alg_log_begin(text, level);
    message[0] = '\0'; /* should the formatter fail before it writes anything */
    vsnprintf(message, (size_t)(text + ALG_LOG_TEXT_SIZE - message), format, arguments);
    alg_log_end(message + strlen(message));
}

/* Logs a finished line, with its call site (`file` is a base name) or, where `file` is null, without. */
ALG_LOG_INLINE void alg_log_print(alg_log_level level, const char* tag, const char* file, const char* function,
                                  int line, const char* text) {
    const int priority = level == ALG_LOG_LEVEL_ERROR ? ALG_LOG_PRIORITY_ERROR : ALG_LOG_PRIORITY;
    if (file == NULL) {
        __dlog_print(ALG_LOG_BUFFER, priority, tag, "%s", text);
    } else {
        __dlog_print(ALG_LOG_BUFFER, priority, tag, "%s: %s(%d) > %s", file, function, line, text);
    }
    if (level == ALG_LOG_LEVEL_ERROR) {
        fprintf(stderr, "[%-10s] %s", tag, text);
    }
}

/* Logs one formatted line; the other arguments are those of alg_log_print. */
__attribute__((format(printf, 6, 7))) ALG_LOG_INLINE void alg_log_write(alg_log_level level, const char* tag,
                                                                        const char* file, const char* function,
                                                                        int line, const char* format, ...) {
    char text[ALG_LOG_LINE_SIZE];
    va_list arguments;
    va_start(arguments, format);
    alg_log_compose(text, level, format, arguments);
    va_end(arguments);
    alg_log_print(level, tag, file, function, line, text);
}

/* The compiler evaluates these for a constant string. */
#define ALG_LOG_CONTAINS(tag, word) (__builtin_strstr((tag), (word)) != NULL)
#define ALG_LOG_HAS_SITE(tag) (!ALG_LOG_CONTAINS((tag), "BTLOG") && !ALG_LOG_CONTAINS((tag), "PERF"))
#define ALG_LOG_FILE (__builtin_strrchr(__FILE__, '/') != NULL ? __builtin_strrchr(__FILE__, '/') + 1 : __FILE__)

/* A line of any level and any tag; the named levels below are this with their level and the unit's tag. */
#define ALG_LOG(level, tag, ...)                                                                                       \
    do {                                                                                                               \
        if ((level) != ALG_LOG_LEVEL_ERROR && ALG_LOG_CONTAINS((tag), "BTLOG")) {                                      \
            __dlog_print(ALG_LOG_BUFFER, ALG_LOG_PRIORITY, (tag), __VA_ARGS__);                                        \
        } else {                                                                                                       \
            alg_log_write((level), (tag), ALG_LOG_HAS_SITE((tag)) ? ALG_LOG_FILE : NULL, __func__, __LINE__,           \
                          __VA_ARGS__);                                                                                \
        }                                                                                                              \
    } while (0)

#ifndef ALG_LOG_LINE
/* A line of the unit's tag. A unit that makes its lines another way defines this before it includes the header. */
#define ALG_LOG_LINE(level, ...) ALG_LOG(level, ALG_LOG_TAG, __VA_ARGS__)
#endif

/* A line of each level, used like printf. */
#define ALG_LOG_PLAIN(...) ALG_LOG_LINE(ALG_LOG_LEVEL_PLAIN, __VA_ARGS__)
#define ALG_LOG_GREEN(...) ALG_LOG_LINE(ALG_LOG_LEVEL_GREEN, __VA_ARGS__)
#define ALG_LOG_YELLOW(...) ALG_LOG_LINE(ALG_LOG_LEVEL_YELLOW, __VA_ARGS__)
#define ALG_LOG_CYAN(...) ALG_LOG_LINE(ALG_LOG_LEVEL_CYAN, __VA_ARGS__)
#define ALG_LOG_WARN(...) ALG_LOG_LINE(ALG_LOG_LEVEL_WARN, __VA_ARGS__)
#define ALG_LOG_ERROR(...) ALG_LOG_LINE(ALG_LOG_LEVEL_ERROR, __VA_ARGS__)

#endif

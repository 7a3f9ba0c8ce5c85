/// The daemon's diagnostic log, the one place where it says what it does.
///
/// There are no levels, no time stamps and no way to switch it off: every record goes to the
/// standard error stream.

#pragma once

/// Characters of one record, the terminating NUL included.
constexpr int LOG_LINE_MAX = 1024;

/// Writes "kelo-monitord: ", the message and " [file:line function]\n" as one record to stderr.
///
/// `file` is the calling source file without directories, `line` the line of the call and
/// `function` the calling function; KELO_LOG fills them in. The record is whole only while prefix
/// and message together stay under 128 characters; see the definition for what longer ones become.
///
/// Returns the result of fputs(3): non-negative, or EOF if the record could not be written.
extern "C" int kelo_log(const char *file, int line, const char *function, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/// The source file's name without directories. gcc knows it from release 12 on.
#ifdef __FILE_NAME__
#define KELO_FILE_NAME __FILE_NAME__
#else
#define KELO_FILE_NAME (__builtin_strrchr("/" __FILE__, '/') + 1)
#endif

/// Logs a printf(3) message with the location of the call.
#define KELO_LOG(...) kelo_log(KELO_FILE_NAME, __LINE__, __func__, __VA_ARGS__)

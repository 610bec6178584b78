#pragma once

#include <atomic>

namespace kxorbeta_if {

/// Verbosities of log records. A larger number is written only to more talkative logs.
namespace verbosity {
inline constexpr int kInfo = 0;
inline constexpr int kWarning = -1;
inline constexpr int kWaiting = 7;  ///< a frame waits for more data
inline constexpr int kTraffic = 8;  ///< dumps of what came in
}  // namespace verbosity

/// The largest verbosity that any log output wants. Kept here, in one word, because a record that nobody wants must
/// cost next to nothing, however often the stream asks for it. Until logging is set up, the console wants INFO.
inline std::atomic<int> logCutoff{verbosity::kInfo};

/// Asks the logging library anew; for whoever adds an output by other means than the functions below.
void refreshLogCutoff();

/// Writes one record with the source name "orbeta_if" and the given line; a record that cannot be written is dropped.
/// Use KX_LOG, which asks the cut-off first.
#if defined(__GNUC__)
__attribute__((format(printf, 3, 4)))
#endif
void logRecord(int verbosity, unsigned line, const char* format, ...) noexcept;

/// Adds the log file `path`; a file added before under the same name is closed first, so that no line is written twice
/// and a name without folder means the folder that is current now.
void logToFile(const char* path, bool truncate, int verbosity);

/// Closes the log file that logToFile added, if it did.
void logCloseFile(const char* path);

/// Nothing goes to the console from now on.
void logConsoleOff();

/// Ends all logging for good and closes the file: the process is ending, or the library is about to be unloaded. Later
/// records are dropped, also those of threads that still run.
void logShutdown(const char* path);

}  // namespace kxorbeta_if

/// One log record. The arguments are evaluated only when some output wants the record.
#define KX_LOG(level, ...)                                                         \
    do {                                                                           \
        if (::kxorbeta_if::logCutoff.load(std::memory_order_relaxed) >= (level)) { \
            ::kxorbeta_if::logRecord((level), __LINE__, __VA_ARGS__);              \
        }                                                                          \
    } while (false)

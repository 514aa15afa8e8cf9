// Logger: one process-wide logging call. A record goes to the debugger output,
// to the console (coloured by level on a terminal) and to a daily file
// "<exe dir>/log/<exe name>_YYYYMMDD.log". "log.ini" beside the host
// executable (section "LOG", keys "level" and "mask") is read once, after the
// first record has been formatted and before it is filtered: that record
// carries the initial fields, but its level is already judged by log.ini.
#pragma once

#include <cstdint>

namespace lumets {

enum LogLevel : int32_t {
    LogFatal = 0,
    LogError = 1,
    LogWarn = 2,
    LogInfo = 3,
    LogDebug = 4,
    LogTrace = 5,
};

// Mask bits: which optional fields a record carries.
enum LogField : uint32_t {
    LogFieldLevel = 1,
    LogFieldDate = 2,
    LogFieldTime = 4,
    LogFieldFileLine = 8,
    LogFieldFunction = 16,
    LogFieldProcessThread = 32,
};

class Logger {
  public:
    // A record is cut to fit 2048 bytes with its final "\n" and terminator.
    static void Write(int32_t level, const char* file, int32_t line, const char* function,
                      const char* format, ...) __attribute__((format(printf, 5, 6)));

    // Tests only: forget the configuration and take exePath as the host
    // executable's path, so the next Write configures again from its directory.
    static void ResetForTesting(const char* exePath);
};

}  // namespace lumets

#define LUMETS_LOG(level, ...) \
    ::lumets::Logger::Write((level), __FILE__, __LINE__, __func__, __VA_ARGS__)

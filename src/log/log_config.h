// Reading "log.ini": section "LOG", keys "level" and "mask". The file format
// comes from the Windows profile functions, so lookups follow their rules:
// section and key names compare without regard to case or surrounding blanks,
// the first occurrence of a key wins, one pair of matching quotes around a
// value is dropped, and indented lines are ordinary lines.
#pragma once

#include <cstddef>
#include <cstdint>

#include "log/logger.h"

namespace lumets {

struct LogConfig {
    // Not yet capped at LogTrace; negative values stay negative.
    int32_t level = LogInfo;
    uint32_t mask = LogFieldLevel | LogFieldTime;
};

// Parses the text of a "log.ini". Keys that are missing keep the defaults.
// A null text reads as an empty file.
LogConfig ParseLogConfig(const char* text);

// A "log.ini" longer than this is no configuration file.
inline constexpr size_t kMaxConfigBytes = 65536;

// Reads a "log.ini" from disk. Only a regular file of at most kMaxConfigBytes
// is read, without ever blocking; anything else gives the defaults, as a file
// without the keys does.
LogConfig ReadLogConfigFile(const char* path);

// Profile-integer reading: leading blanks, an optional sign, then decimal
// digits up to the first other character. Text without digits reads as 0, an
// empty text as fallback; values beyond the 32-bit range saturate.
int32_t ParseProfileInt(const char* text, int32_t fallback);

}  // namespace lumets

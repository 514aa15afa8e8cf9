#include "log/log_config.h"

#include <ini.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <string_view>
#include <vector>

#include "lumets_platform/file.h"

namespace lumets {
namespace {

// The mask is read into a buffer of 128 bytes, so only its first 127
// characters are searched.
constexpr size_t kMaskChars = 127;

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view Trim(std::string_view text) {
    while (!text.empty() && IsBlank(text.front())) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsBlank(text.back())) {
        text.remove_suffix(1);
    }
    return text;
}

bool SameName(const char* name, std::string_view wanted) {
    const std::string_view trimmed = Trim(name);
    return trimmed.size() == wanted.size() &&
           std::equal(trimmed.begin(), trimmed.end(), wanted.begin(), [](char a, char b) {
               return std::tolower(static_cast<unsigned char>(a)) ==
                      std::tolower(static_cast<unsigned char>(b));
           });
}

std::string_view Unquote(std::string_view value) {
    if (value.size() >= 2 && (value.front() == '"' || value.front() == '\'') &&
        value.back() == value.front()) {
        return value.substr(1, value.size() - 2);
    }
    return value;
}

uint32_t MaskFromText(std::string_view text) {
    char upper[kMaskChars + 1];
    const size_t length = std::min(text.size(), kMaskChars);
    for (size_t i = 0; i < length; ++i) {
        upper[i] = static_cast<char>(std::toupper(static_cast<unsigned char>(text[i])));
    }
    const std::string_view searched(upper, length);
    // Level and time are always on; the text is searched, not parsed.
    uint32_t mask = LogFieldLevel | LogFieldTime;
    if (searched.find("FILELINE") != std::string_view::npos) {
        mask |= LogFieldFileLine;
    }
    if (searched.find("FUNCTION") != std::string_view::npos) {
        mask |= LogFieldFunction;
    }
    return mask;
}

struct ParseState {
    LogConfig config;
    bool levelSeen = false;
    bool maskSeen = false;
};

int OnValue(void* user, const char* section, const char* name, const char* value) {
    auto* state = static_cast<ParseState*>(user);
    if (section == nullptr || name == nullptr || value == nullptr || !SameName(section, "LOG")) {
        return 1;
    }
    // inih copies the value into a NUL-terminated buffer; an embedded NUL
    // therefore ends it, as it would end a string read by the profile functions.
    const std::string_view text = Unquote(value);
    if (!state->levelSeen && SameName(name, "level")) {
        state->levelSeen = true;
        char digits[32];
        const size_t length = std::min(text.size(), sizeof(digits) - 1);
        std::memcpy(digits, text.data(), length);
        digits[length] = '\0';
        state->config.level = ParseProfileInt(digits, LogInfo);
    } else if (!state->maskSeen && SameName(name, "mask")) {
        state->maskSeen = true;
        state->config.mask = MaskFromText(text);
    }
    return 1;
}

// Where the lines come from: a NUL-terminated text, or a file's bytes up to
// their end (NUL bytes included).
struct LineSource {
    const char* text = nullptr;
    const char* end = nullptr;  // null: the text ends at its NUL

    int Next() {
        if (text == nullptr || (end != nullptr ? text == end : *text == '\0')) {
            return EOF;
        }
        return static_cast<unsigned char>(*text++);
    }
};

// inih takes an indented line for the continuation of the previous value and
// reads the rest of an over-long line as a line of its own. The profile
// functions do neither, so this reader drops leading blanks and cuts an
// over-long line, discarding its rest.
char* ReadLine(char* line, int capacity, void* stream) {
    auto* source = static_cast<LineSource*>(stream);
    if (capacity <= 0) {
        return nullptr;
    }
    int c = source->Next();
    if (c == EOF) {
        return nullptr;
    }
    while (c == ' ' || c == '\t') {
        c = source->Next();
    }
    int length = 0;
    while (c != EOF && c != '\n') {
        if (length < capacity - 1) {
            line[length++] = static_cast<char>(c);
        }
        c = source->Next();
    }
    line[length] = '\0';
    return line;
}

LogConfig Parse(LineSource source) {
    ParseState state;
    // The return value counts malformed lines; like the profile functions, the
    // reader skips them and keeps what it found.
    ini_parse_stream(ReadLine, &source, OnValue, &state);
    return state.config;
}

}  // namespace

int32_t ParseProfileInt(const char* text, int32_t fallback) {
    if (text == nullptr) {
        return fallback;
    }
    const char* p = text;
    while (*p == ' ' || *p == '\t') {
        ++p;
    }
    if (*p == '\0') {
        return fallback;
    }
    bool negative = false;
    if (*p == '+' || *p == '-') {
        negative = *p == '-';
        ++p;
    }
    // Accumulate in 64 bits and stop growing once past the 32-bit range.
    constexpr int64_t kLimit = static_cast<int64_t>(std::numeric_limits<int32_t>::max()) + 1;
    int64_t magnitude = 0;
    while (*p >= '0' && *p <= '9') {
        magnitude = std::min(magnitude * 10 + (*p - '0'), kLimit);
        ++p;
    }
    if (negative) {
        return static_cast<int32_t>(-magnitude);
    }
    return static_cast<int32_t>(std::min(magnitude, kLimit - 1));
}

LogConfig ParseLogConfig(const char* text) {
    LineSource source;
    source.text = text;
    return Parse(source);
}

LogConfig ReadLogConfigFile(const char* path) {
    if (path == nullptr) {
        return LogConfig{};
    }
    std::vector<char> bytes;
    const bool read = platform::ReadRegularFile(path, kMaxConfigBytes, [&](size_t size) {
        bytes.resize(size);
        return reinterpret_cast<uint8_t*>(bytes.data());
    });
    if (!read) {
        return LogConfig{};
    }
    LineSource source;
    source.text = bytes.data();
    source.end = bytes.data() + bytes.size();
    return Parse(source);
}

}  // namespace lumets

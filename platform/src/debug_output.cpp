#include "lumets_platform/debug_output.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "lumets_platform/utf16.h"

namespace lumets::platform {

namespace {

// Debug strings are short lines; a longer one is cut rather than walked forever.
constexpr size_t kMaxUnits = 64 * 1024;

bool Enabled() {
    return std::getenv("LUMETS_DEBUG_OUTPUT") != nullptr;
}

// Debugger strings end in a bare carriage return; on a terminal that would let
// the next line overwrite this one, so it becomes a line feed. One write per
// line keeps lines from different threads whole.
void Write(std::string line) {
    if (!line.empty() && line.back() == '\r') {
        line.back() = '\n';
    }
    std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace

void DebugOutput(const char* text) {
    if (text == nullptr || !Enabled()) {
        return;
    }
    Write(std::string(text, strnlen(text, kMaxUnits)));
}

void DebugOutputW(const char16_t* text) {
    if (text == nullptr || !Enabled()) {
        return;
    }
    Write(U16ToUtf8(text, kMaxUnits));
}

}  // namespace lumets::platform

// Fuzz target: arbitrary bytes as a "log.ini". Parsing must never read past
// the text, and what it gives must be a configuration the logger can use.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "log/log_config.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const lumets::LogConfig config = lumets::ParseLogConfig(text.c_str());
    // Level and time are always on; nothing outside the known fields is set.
    const uint32_t known = lumets::LogFieldLevel | lumets::LogFieldTime | lumets::LogFieldFileLine |
                           lumets::LogFieldFunction;
    if ((config.mask & (lumets::LogFieldLevel | lumets::LogFieldTime)) !=
            (lumets::LogFieldLevel | lumets::LogFieldTime) ||
        (config.mask & ~known) != 0) {
        std::abort();
    }
    (void)lumets::ParseProfileInt(text.c_str(), 3);
    return 0;
}

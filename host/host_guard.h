// liblumets_host's guard at its entries (see lumets_platform/guarded.h). The
// host library cannot reach the library's log, so a failure goes to the debug
// output, as its GL errors do.
#pragma once

#include <cstdio>

#include "lumets_platform/debug_output.h"
#include "lumets_platform/guarded.h"

namespace lumets::host {

inline void ReportHostFailure(const char* what, const char* why) {
    char line[256];
    std::snprintf(line, sizeof line, "lumets_host: %s failed: %s\n", what, why);
    platform::DebugOutput(line);
}

template <typename Body>
auto HostGuarded(const char* what, Body&& body) noexcept {
    return platform::Guarded<ReportHostFailure>(what, body);
}

template <typename Interface>
using CHostGuarded = platform::CGuardedDecorator<ReportHostFailure, Interface>;

}  // namespace lumets::host

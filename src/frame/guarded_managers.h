// What the exported factories hand out: decorators that own the real managers
// and run every operation, and the destruction, under platform::Guarded, so
// that nothing thrown inside reaches the host. Each failure is one error
// record in the log, and the host gets the operation's failure value.
#pragma once

#include <memory>

#include "lumets/lumet_manager.h"
#include "lumets/virtual_scene_manager.h"
#include "lumets/weird_subtitle_manager.h"
#include "lumets_platform/guarded.h"

namespace lumets {

// The error record for a failure at the library's boundary.
void ReportBoundaryFailure(const char* what, const char* why);

// body() under the library's guard: for the factories and destroyers.
template <typename Body>
auto AtBoundary(const char* what, Body&& body) noexcept {
    return platform::Guarded<ReportBoundaryFailure>(what, body);
}

// The guarding decorator that owns real.
std::unique_ptr<ILumetManager> Guard(std::unique_ptr<ILumetManager> real);
std::unique_ptr<IWeirdSubtitleManager> Guard(std::unique_ptr<IWeirdSubtitleManager> real);
std::unique_ptr<IVirtualSceneManager> Guard(std::unique_ptr<IVirtualSceneManager> real);

}  // namespace lumets

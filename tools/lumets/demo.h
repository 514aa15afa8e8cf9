// The built-in default scene: generated pictures composed into one frame with
// the library's blend and copy operations.
#pragma once

#include <cstdint>
#include <vector>

namespace lumets::tool {

constexpr int32_t kDemoWidth = 1280;
constexpr int32_t kDemoHeight = 720;

// A 24-bit bottom-up frame of kDemoWidth x kDemoHeight.
std::vector<uint8_t> RenderDemoFrame();

}  // namespace lumets::tool

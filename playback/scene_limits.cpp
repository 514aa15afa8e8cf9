#include "scene_limits.h"

#include <array>

namespace lumets::playback {

std::span<const SceneLimit> SceneLimits() {
    using namespace limits;
    static constexpr std::array kAll = {
        kFrameSide,  kFps,     kDuration,  kSubtitlesAtOnce, kSubtitles,  kActions,  kItems,
        kId,         kContent, kMediaPath, kMediaPathUnits,  kCoordinate, kSpeed,    kFontSize,
        kAlign,      kPercent, kFillAngle, kOutlineWidth,    kPlays,      kInterval, kScale,
        kActionTime, kKeep,    kDepth,     kSceneBytes,
    };
    return kAll;
}

}  // namespace lumets::playback

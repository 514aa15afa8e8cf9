// The scene format's numeric limits, each named once. The reader checks them,
// docs/scene.schema.json states those a schema can express (the playback
// suite holds the two together), and the lumets program bounds its command
// line by the same numbers.
#pragma once

#include <lumets/lumets.h>

#include <cstddef>
#include <limits>
#include <span>
#include <type_traits>

#include "lumets/export.h"

namespace lumets::playback {

struct SceneLimit {
    enum class Kind {
        Integer,  // a whole number: "type": "integer", "minimum", "maximum"
        Number,   // any number: "type": "number", "minimum", "maximum"
        Count,    // entries of a list ("minItems", "maxItems"), levels, bytes
        Length,   // UTF-16 units of a string ("minLength", "maxLength")
    };
    const char* name;
    // A JSON pointer into the schema to the node that states the bounds, or
    // null where a schema cannot state them.
    const char* schema;
    Kind kind;
    double min;
    double max;

    // False for NaN too.
    constexpr bool Admits(double value) const { return value >= min && value <= max; }
};

inline constexpr double kUnbounded = std::numeric_limits<double>::infinity();

namespace limits {

using enum SceneLimit::Kind;

// A side of the layout, and of the frames the program writes or filters.
inline constexpr SceneLimit kFrameSide{"size", "/$defs/side", Integer, 16, 8192};
inline constexpr SceneLimit kFps{"fps", "/properties/fps", Number, 1, 240};
inline constexpr SceneLimit kDuration{"duration", "/properties/duration", Number, 0.001, 86400};
// Every subtitle plays on threads of its own: however a file starts them, no
// more than this many may be alive at once.
inline constexpr SceneLimit kSubtitlesAtOnce{"subtitles at once", nullptr, Count, 0, 256};
inline constexpr SceneLimit kSubtitles{"subtitles", "/properties/subtitles", Count, 0,
                                       kSubtitlesAtOnce.max};
inline constexpr SceneLimit kActions{"actions", "/properties/actions", Count, 0, 100000};
inline constexpr SceneLimit kItems{"items", "/$defs/subtitle/properties/items", Count, 1, 256};
// The records hold their text with a terminating NUL.
inline constexpr SceneLimit kId{"id", "/$defs/subtitle/properties/id", Length, 1,
                                std::extent_v<decltype(SubtitleRectEntry::id)> - 1};
inline constexpr SceneLimit kContent{"content", "/$defs/text/properties/content", Length, 0,
                                     std::extent_v<decltype(TextPart::text)> - 1};
inline constexpr SceneLimit kMediaPath{"media path", "/$defs/path", Length, 1, kUnbounded};
// A media path once joined to the scene's folder, which the schema cannot see.
inline constexpr SceneLimit kMediaPathUnits{"media path joined", nullptr, Length, 1,
                                            std::extent_v<decltype(SwfPart::szPath)> - 1};
inline constexpr SceneLimit kCoordinate{"coordinate", "/$defs/coordinate", Integer, -1e6, 1e6};
inline constexpr SceneLimit kSpeed{"speed", "/$defs/scroll/speed", Integer, 0, 100000};
inline constexpr SceneLimit kFontSize{"fontSize", "/$defs/fontSize", Integer, 1, 2000};
inline constexpr SceneLimit kAlign{"align", "/$defs/align", Integer, 0, 2};
inline constexpr SceneLimit kPercent{"percent", "/$defs/percent", Integer, 0, 100};
inline constexpr SceneLimit kFillAngle{"fillAngle", "/$defs/style/properties/fillAngle", Number,
                                       -3600, 3600};
inline constexpr SceneLimit kOutlineWidth{"outlineWidth", "/$defs/style/properties/outlineWidth",
                                          Number, 0, 100};
inline constexpr SceneLimit kPlays{"plays", "/$defs/item/properties/plays", Integer, -1, 1e6};
inline constexpr SceneLimit kInterval{"interval", "/$defs/subtitle/properties/interval", Integer, 0,
                                      3.6e6};
inline constexpr SceneLimit kScale{"scale", "/$defs/ombrel/properties/scale", Number, 0.01, 100};
inline constexpr SceneLimit kActionTime{"at", "/$defs/time", Number, 0, kDuration.max};
inline constexpr SceneLimit kKeep{"keep", "/$defs/do/trim/properties/keep", Integer, 0, 1e6};
// Containers deep; no scene nests more than a few, and the reader's work per
// value grows with the depth.
inline constexpr SceneLimit kDepth{"depth", nullptr, Count, 0, 32};
inline constexpr SceneLimit kSceneBytes{"scene bytes", nullptr, Count, 0, 16 << 20};

}  // namespace limits

// Every limit above.
LUMETS_SCENE_API std::span<const SceneLimit> SceneLimits();

}  // namespace lumets::playback

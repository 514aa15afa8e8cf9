// The scene file: what a scene shows and does over time, read from JSON
// (docs/scene.md). Every field is checked before any frame is drawn: a bad
// file throws SceneError naming the file, the line and column, and what is
// wrong. Media paths are taken relative to the scene file's folder and must
// exist.
#pragma once

#include <lumets/lumets.h>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "paths.h"

namespace lumets::playback {

class LUMETS_SCENE_API SceneError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

struct Scroll {
    int32_t direction = 0;  // ScrollDirection
    uint32_t speed = 0;     // pixels per second
    bool wrap = false;
};

struct MovieLayer {
    std::string path;
    RECT clip{};
    POINT pos{};
    Scroll scroll;
    bool ignoreMovieEnd = false;
};

struct TextLayer {
    std::u16string text;
    TextStyle style;
    RECT clip{};
    POINT pos{};
    Scroll scroll;
};

struct PlateLayer {
    uint32_t colour = 0;   // 0xRRGGBB
    uint32_t opacity = 0;  // percent
    bool spanClip = false;
};

struct Item {
    std::optional<MovieLayer> movie;
    std::optional<TextLayer> text;
    std::optional<PlateLayer> plate;
    int32_t playCount = 0;  // 0 without end
};

struct Subtitle {
    std::u16string id;
    std::u16string group;
    POINT pos{};
    bool loop = false;
    int32_t intervalMs = 0;
    std::vector<Item> items;
};

// Banner origins are the library's: the bottom-left corner, y counted up
// from the frame's bottom row.
struct TavrinBanner {
    std::array<std::u16string, 6> texts;
    std::array<std::string, 2> images;
    POINT origin{};
};
struct QuellinBanner {
    std::array<std::u16string, 2> texts;
    std::string plate;
    POINT origin{};
};
struct OmbrelBanner {
    std::u16string text;
    int32_t fontSize = 16;
    std::string caps;
    std::string middle;
    RECT rect{};  // top-down
    float scale = 1.0f;
};

// The scene movie, played into a GL texture and shown in rect (top-down).
struct VirtualScene {
    std::string path;
    RECT rect{};
};

// The three banners: each present, or not shown.
struct Banners {
    std::optional<TavrinBanner> tavrin;
    std::optional<QuellinBanner> quellin;
    std::optional<OmbrelBanner> ombrel;
};

// What a banners action does to each banner: leaves it, takes it down, or
// puts it up (anew or changed) as given.
struct BannerChange {
    enum class Kind { Keep, TakeDown, Put };
    Kind tavrin = Kind::Keep;
    Kind quellin = Kind::Keep;
    Kind ombrel = Kind::Keep;
    Banners banners;  // the banners to put up
};

struct Action {
    enum class Kind { Add, Remove, RemoveAll, Trim, Move, Drag, Text, Plate, Banners };
    double at = 0;  // seconds
    Kind kind = Kind::Remove;
    std::u16string id;                      // Remove, Move, Text, Plate
    std::u16string group;                   // Trim, Drag
    uint32_t keep = 0;                      // Trim
    POINT to{};                             // Move; Drag's end
    POINT from{};                           // Drag's start: the point hit-tested
    std::shared_ptr<Subtitle> subtitle;     // Add
    std::shared_ptr<TextLayer> text;        // Text
    PlateLayer plate;                       // Plate
    std::shared_ptr<BannerChange> banners;  // Banners
};

struct Background {
    enum class Kind { Colour, Image, Video };
    Kind kind = Kind::Colour;
    uint32_t colour = 0x101820;
    std::string path;
};

struct Scene {
    int32_t width = 1280;  // the size the scene is laid out for
    int32_t height = 720;
    double fps = 30;
    double duration = 10;  // seconds
    Background background;
    std::vector<Subtitle> subtitles;
    std::optional<TavrinBanner> tavrin;
    std::optional<QuellinBanner> quellin;
    std::optional<OmbrelBanner> ombrel;
    std::optional<VirtualScene> virtualScene;
    std::vector<Action> actions;  // in time order
};

// Why the media file at path cannot serve as use, or empty when it can: how
// deep to look (to the file, or into its pictures) is the caller's choice.
using MediaCheck = std::function<std::string(const std::string& path, MediaUse use)>;

// Reads and checks the scene file at path, and each media file it names
// through check (once per file and use).
LUMETS_SCENE_API Scene LoadScene(const std::string& path, const MediaCheck& check);
// The same for JSON text; name stands for the file in messages and baseDir
// anchors relative media paths.
LUMETS_SCENE_API Scene ParseScene(const std::string& text, const std::string& name,
                                  const std::string& baseDir, const MediaCheck& check);

// One action of the scene file's vocabulary ({"do": "add", ...}) for a scene
// that plays now: the same checks and messages, without "at".
LUMETS_SCENE_API Action ParseAction(const std::string& text, const std::string& name,
                                    const std::string& baseDir, const MediaCheck& check);

// One action or a list of at most maxCount, each read on its own: an action,
// or why it cannot be (located in text). A text that is no JSON, or neither
// an object nor such a list, throws SceneError.
struct ReadOutcome {
    std::optional<Action> action;
    std::string error;
};
LUMETS_SCENE_API std::vector<ReadOutcome> ParseActions(const std::string& text,
                                                       const std::string& name,
                                                       const std::string& baseDir,
                                                       const MediaCheck& check, size_t maxCount);

// "#RRGGBB" as 0xRRGGBB; false when text is not such a colour.
LUMETS_SCENE_API bool ParseColour(const std::string& text, uint32_t* colour);

}  // namespace lumets::playback

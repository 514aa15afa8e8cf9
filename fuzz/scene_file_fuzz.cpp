// Fuzz target: arbitrary bytes as a scene file. Reading must end in a scene
// or in a located SceneError, never in another exception, a crash or a
// stall; no media file exists, so any media reference is an error too.
#include <cstdint>
#include <cstdlib>
#include <string>

#include "scene_file.h"
#include "scene_limits.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    try {
        const lumets::playback::Scene scene =
            lumets::playback::ParseScene(text, "fuzz.json", "/nonexistent-lumets-media",
                                         [](const std::string& path, lumets::playback::MediaUse) {
                                             return lumets::playback::WhyNotAFile(path);
                                         });
        using namespace lumets::playback::limits;
        if (!kFrameSide.Admits(scene.width) || !kFrameSide.Admits(scene.height) ||
            !kFps.Admits(scene.fps) || scene.subtitles.size() > kSubtitles.max) {
            std::abort();
        }
    } catch (const lumets::playback::SceneError& error) {
        if (std::string(error.what()).rfind("fuzz.json:", 0) != 0) {
            std::abort();  // every message names the file first
        }
    }
    return 0;
}

// Plays a scene through the library's public interfaces, as a host does: the
// subtitles through ILumetManager, the banners through IWeirdSubtitleManager
// and the scene movie through IVirtualSceneManager, in virtual time so that
// frame n shows the scene exactly n frame periods after its start.
#pragma once

#include <lumets/host/gl_objects.h>
#include <lumets/host/gpu_combiner.h>
#include <lumets/host/headless_gl.h>
#include <lumets/lumets.h>

#include "lumets_common/gl_owners.h"
#include "lumets_common/scaled_composite.h"

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "scene_file.h"

namespace lumets::playback {

class LUMETS_SCENE_API CScenePlayer {
  public:
    // Virtual time must be on. gpu composites the subtitles through
    // DrawToTarget on a headless OpenGL context. False from Ok(), with the
    // reason in Error(), when OpenGL is needed and missing.
    CScenePlayer(const Scene& scene, int32_t width, int32_t height, double fps, bool gpu);
    ~CScenePlayer();
    CScenePlayer(const CScenePlayer&) = delete;
    CScenePlayer& operator=(const CScenePlayer&) = delete;

    bool Ok() const { return m_error.empty(); }
    const std::string& Error() const { return m_error; }

    // Moves time on to frame index (never back), carrying out the actions
    // due on the way, and composites that frame into frame (the library's
    // 24-bit bottom-up layout), which holds the backdrop.
    void Render(uint64_t index, uint8_t* frame);

  private:
    struct Records;  // the item records handed to AddSubtitle

    void Add(const Subtitle& subtitle);
    void Apply(const Action& action);
    void AdvanceTo(uint64_t ms);
    void DrawSubtitlesOnGpu(uint8_t* frame);
    void DrawVirtualScene(uint8_t* frame);

    const Scene& m_scene;
    int32_t m_width;
    int32_t m_height;
    double m_fps;
    float m_scale;
    bool m_gpu;
    uint64_t m_nowMs = 0;
    size_t m_nextAction = 0;
    std::string m_error;

    std::unique_ptr<host::CHeadlessGl> m_gl;
    IGPUCombiner* m_combiner = nullptr;
    IPBO* m_pbo = nullptr;
    gl::CTexture m_frameTexture;
    std::vector<uint8_t> m_bgra;
    CScalerCache m_sceneScaler;  // the scene movie's, kept while its sizes stay

    ILumetManager* m_subtitles = nullptr;
    IWeirdSubtitleManager* m_banners = nullptr;
    IVirtualSceneManager* m_virtualScene = nullptr;
};

}  // namespace lumets::playback

// Plays a scene through the library's public interfaces, as a host does: the
// subtitles through ILumetManager, the banners through IWeirdSubtitleManager
// and the scene movie through IVirtualSceneManager, on a virtual clock of its
// own, so that the frame at time t shows the scene exactly t milliseconds
// after its start, whatever else plays in the process.
#pragma once

#include <lumets/frame.h>
#include <lumets/host/gl_objects.h>
#include <lumets/host/gpu_combiner.h>
#include <lumets/host/headless_gl.h>
#include <lumets/lumets.h>

#include "lumets_common/gl_owners.h"
#include "lumets_common/scaled_composite.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "scene_file.h"

namespace lumets::playback {

// A subtitle that plays, as its scene added it: rect in the scene's coordinates.
struct PlayingSubtitle {
    std::string id;
    std::string group;
    RECT rect{};
};

// A subtitle that started or ended between two looks at what plays.
struct SubtitleChange {
    std::string id;
    std::string group;
    bool started = false;
};

class LUMETS_SCENE_API CScenePlayer {
  public:
    // gpu composites the subtitles through DrawToTarget on a headless OpenGL
    // context of gpuWidth x gpuHeight (24-bit B, G, R bottom-up frames of that
    // size only). False from Ok(), with the reason in Error(), when OpenGL is
    // needed and missing. The scene must outlive the player.
    explicit CScenePlayer(const Scene& scene, bool gpu = false, int32_t gpuWidth = 0,
                          int32_t gpuHeight = 0);
    ~CScenePlayer();
    CScenePlayer(const CScenePlayer&) = delete;
    CScenePlayer& operator=(const CScenePlayer&) = delete;

    bool Ok() const { return m_error.empty(); }
    const Scene& GetScene() const { return m_scene; }
    const std::string& Error() const { return m_error; }

    // Moves the scene's clock on to ms (never back), carrying out the
    // scene's actions due on the way.
    void AdvanceTo(uint64_t ms);
    uint64_t NowMs() const { return m_nowMs; }

    // Composites the scene as it stands into frame, which holds the picture
    // beneath, scaled by the frame's width over the scene's. False when the
    // frame cannot be drawn into.
    bool Draw(const lumets_frame& frame);
    // The same into the framebuffer bound on the calling thread's current GL
    // context: the subtitles, the third banner and the scene movie. The GL
    // objects it makes live in that context: destroy the player while it is
    // current. The scene movie plays in the first context that draws it, so
    // a player drawn here leaves it out of Draw.
    bool DrawToTarget(int32_t width, int32_t height);

    // Carries out one action now. Empty, or why it changed nothing: an id
    // nothing plays under, a drag that hits nothing, an add past the number
    // of subtitles that may play at once.
    std::string Apply(const Action& action);

    // The subtitles playing now, in the scene's coordinates.
    std::vector<PlayingSubtitle> Playing();

    // {"time_ms": T, "subtitles": [{"id", "group", "rect": [l, t, r, b]}], "banners": {...}}:
    // what plays and shows now, in the scene's coordinates.
    std::string StateJson();
    // The same for what Playing() gave, so a host that also follows it looks once.
    std::string StateJson(const std::vector<PlayingSubtitle>& playing);

  private:
    struct Records;  // the item records handed to AddSubtitle

    void Add(const Subtitle& subtitle);
    void PutUp(const BannerChange& change);
    bool Plays(const std::u16string& id);
    void Forget();
    void DrawSubtitlesOnGpu(const lumets_frame& frame);
    void DrawVirtualScene(const lumets_frame& frame, float scale);

    enum class MovieOn : uint8_t { Nowhere, OwnContext, CallersContext };

    const Scene& m_scene;
    Clock m_clock;  // declared before the managers: it outlives them
    bool m_gpu;
    int32_t m_gpuWidth;
    int32_t m_gpuHeight;
    uint64_t m_nowMs = 0;
    size_t m_nextAction = 0;
    std::string m_error;
    // The ids this player added and their groups, for the state and the
    // bound on subtitles at once; pruned of those the manager has dropped.
    std::map<std::u16string, std::u16string> m_added;
    Banners m_shown;  // the banners up now: the scene's, then as actions change them

    std::unique_ptr<host::CHeadlessGl> m_gl;
    MovieOn m_movieOn = MovieOn::Nowhere;  // where the scene movie's GL objects are
    IGPUCombiner* m_combiner = nullptr;
    IPBO* m_pbo = nullptr;
    gl::CTexture m_frameTexture;
    gl::CTexture m_ombrelTexture;
    std::vector<uint8_t> m_bgra;
    CScalerCache m_sceneScaler;  // the scene movie's, kept while its sizes stay

    ILumetManager* m_subtitles = nullptr;
    IWeirdSubtitleManager* m_banners = nullptr;
    IVirtualSceneManager* m_virtualScene = nullptr;
};

// Follows what plays from one look to the next, for hosts that report the
// subtitles that start and end.
class LUMETS_SCENE_API CPlayingWatch {
  public:
    // What started and ended since the last call (ended first).
    std::vector<SubtitleChange> Update(const std::vector<PlayingSubtitle>& playing);

  private:
    std::map<std::string, std::string> m_playing;  // id -> group
};

// Plays *player to ms: a time before its own starts the scene again from the
// file (a new player; what was applied live is gone) and plays it forward.
// False, the player's error at hand, when the new player cannot start.
LUMETS_SCENE_API bool PlayTo(std::unique_ptr<CScenePlayer>& player, const Scene& scene,
                             uint64_t ms);

// The time of frame index at fps, in whole milliseconds.
LUMETS_SCENE_API uint64_t FrameTimeMs(uint64_t index, double fps);

}  // namespace lumets::playback

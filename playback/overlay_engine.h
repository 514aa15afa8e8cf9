// What a host's overlay does, apart from the host: the scene it plays, the
// player on the scene's own clock, the time each frame brings, live control
// and the subtitles that start and end. The GStreamer element and the studio
// source are thin layers over it. Every call may come from any thread: the
// streaming or graphics thread draws while the application applies actions
// and sets properties, so each call takes the engine's lock. Nothing here
// throws to the caller but std::bad_alloc.
#pragma once

#include <lumets/frame.h>

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "control_server.h"
#include "scene_file.h"
#include "scene_player.h"

namespace lumets::playback {

// Where the scene comes from: a file, or JSON given inline. Empty: none.
struct SceneSource {
    bool inlineText = false;
    std::string value;
};

// Why the engine cannot start; a host maps the kind onto its own errors.
struct Failure {
    enum class Kind { None, NotFound, Unreadable, Malformed, Player, Control };
    Kind kind = Kind::None;
    std::string message;
};

// What one frame brought that the host reports (a bus message, a log line).
struct FrameReport {
    std::vector<SubtitleChange> changes;
    std::string warning;  // a scene switched in that could not be read
    bool drawn = false;
};

class LUMETS_SCENE_API COverlayEngine {
  public:
    COverlayEngine();
    ~COverlayEngine();
    COverlayEngine(const COverlayEngine&) = delete;
    COverlayEngine& operator=(const COverlayEngine&) = delete;

    // The scene to play. Set while playing, it comes in at the next frame
    // and plays from its start there.
    void SetSource(SceneSource source);
    SceneSource Source() const;
    // "", "auto", "PORT" or "ADDRESS:PORT"; read at Start.
    void SetControl(std::string control);
    std::string Control() const;

    // Reads the scene, makes its player, starts the control server when
    // asked. A failure leaves the engine stopped.
    Failure Start();
    // Ends the player and joins the control server's threads.
    void Stop();

    // One action of the scene file's vocabulary, carried out at once; false
    // with the reason (located in the text when it does not read).
    bool Apply(const std::string& json, std::string* error);

    // One frame: the scene at runningMs (nullopt: where it stands) drawn
    // into frame. follow: report subtitles that started or ended since the
    // last frame.
    FrameReport Frame(std::optional<uint64_t> runningMs, const lumets_frame& frame, bool follow);
    // The same drawn with OpenGL into the framebuffer bound on the calling
    // thread's current context, width x height pixels, over what it holds
    // (see CScenePlayer::DrawToTarget). preview, when not null, is a frame
    // the host read back for the control page (see PreviewWanted).
    FrameReport FrameOnGpu(std::optional<uint64_t> runningMs, int32_t width, int32_t height,
                           bool follow, const lumets_frame* preview);
    // Whether the control page shows the frame now.
    bool PreviewWanted() const;
    // The scene's length in milliseconds; 0 without a scene.
    int64_t DurationMs() const;
    // Reads the scene again and plays it from its start at the next frame;
    // what was applied live is gone.
    void Restart();

    // The control server's address and its page's (with the token); empty
    // without one.
    std::string ControlUrl() const;
    std::string ControlPageUrl() const;

  private:
    // A scene and its player; the player ends first.
    struct Show {
        Scene scene;
        std::string baseDir;  // relative media paths of actions
        std::unique_ptr<CScenePlayer> player;
    };
    static std::unique_ptr<Show> Load(const SceneSource& source, Failure* failure);
    // Moves the scene on to the frame's time; the player to draw, or null.
    CScenePlayer* Step(std::optional<uint64_t> runningMs, FrameReport* report);
    void Finish(CScenePlayer& player, const lumets_frame& drawn, bool follow, FrameReport* report);

    mutable std::mutex m_lock;
    SceneSource m_source;
    std::string m_control;
    bool m_switch = false;  // m_source changed while playing
    std::unique_ptr<Show> m_show;
    std::unique_ptr<CControlServer> m_server;
    uint64_t m_originMs = 0;  // the running time at which the scene started
    uint64_t m_lastMs = 0;    // the running time of the last frame
    uint64_t m_frames = 0;
    CPlayingWatch m_watch;  // what played at the last frame
};

// "auto", "PORT" or "ADDRESS:PORT" (an IPv6 address in brackets) as the
// control server's options; false for anything else.
LUMETS_SCENE_API bool ParseControl(const std::string& text, ControlOptions* options);

}  // namespace lumets::playback

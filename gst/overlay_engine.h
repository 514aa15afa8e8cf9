// What lumetsoverlay does, apart from GStreamer: the scene it plays, the
// player on the scene's own clock, the time each buffer brings, live control
// and the subtitles that start and end. Every call may come from any thread:
// the streaming thread draws while the application applies actions and sets
// properties, so each call takes the engine's lock. Nothing here throws to
// the caller but std::bad_alloc.
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

namespace lumets::gst {

// Where the scene comes from: a file, or JSON given inline. Empty: none.
struct SceneSource {
    bool inlineText = false;
    std::string value;
};

// Why the element cannot start; the kind picks the GStreamer error code.
struct Failure {
    enum class Kind { None, NotFound, Unreadable, Malformed, Player, Control };
    Kind kind = Kind::None;
    std::string message;
};

using playback::SubtitleChange;

// What one buffer brought that the element reports on the bus.
struct FrameReport {
    std::vector<SubtitleChange> changes;
    std::string warning;  // a scene switched in that could not be read
    bool drawn = false;
};

class COverlayEngine {
  public:
    COverlayEngine();
    ~COverlayEngine();
    COverlayEngine(const COverlayEngine&) = delete;
    COverlayEngine& operator=(const COverlayEngine&) = delete;

    // The scene to play. Set while playing, it comes in at the next buffer
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

    // One buffer: the scene at runningMs (nullopt: where it stands) drawn
    // into frame. follow: report subtitles that started or ended since the
    // last buffer.
    FrameReport Frame(std::optional<uint64_t> runningMs, const lumets_frame& frame, bool follow);

    // The control server's address and its page's (with the token); empty
    // without one.
    std::string ControlUrl() const;
    std::string ControlPageUrl() const;

  private:
    // A scene and its player; the player ends first.
    struct Show {
        playback::Scene scene;
        std::string baseDir;  // relative media paths of actions
        std::unique_ptr<playback::CScenePlayer> player;
    };
    static std::unique_ptr<Show> Load(const SceneSource& source, Failure* failure);

    mutable std::mutex m_lock;
    SceneSource m_source;
    std::string m_control;
    bool m_switch = false;  // m_source changed while playing
    std::unique_ptr<Show> m_show;
    std::unique_ptr<playback::CControlServer> m_server;
    uint64_t m_originMs = 0;  // the running time at which the scene started
    uint64_t m_lastMs = 0;    // the running time of the last buffer
    uint64_t m_frames = 0;
    playback::CPlayingWatch m_watch;  // what played at the last buffer
};

// "auto", "PORT" or "ADDRESS:PORT" (an IPv6 address in brackets) as the
// control server's options; false for anything else.
bool ParseControl(const std::string& text, playback::ControlOptions* options);

}  // namespace lumets::gst

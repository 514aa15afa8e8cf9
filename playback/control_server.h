// Live control of a playing scene over HTTP: actions in, state, a preview and
// events out, and a page for a person. The server runs on threads of its own;
// the frame loop only takes what is queued at its frame boundaries and hands
// over what it drew, never waiting for a client.
//
// Who may call: every request but the page needs the run's token (a bearer
// header, or the cookie the page gets from the printed address); a request
// from another origin, or naming another host, is refused, so a web page in
// the streamer's browser cannot drive it. Every size, queue and rate is
// bounded (kLimits below).
#pragma once

#include <lumets/frame.h>

#include <cstdint>
#include <memory>
#include <string>

#include "lumets/export.h"
#include "scene_player.h"

namespace lumets::playback {

struct ControlLimits {
    size_t bodyBytes = size_t{1} << 20;
    size_t actionsPerRequest = 64;
    size_t queuedActions = 256;
    size_t eventClients = 8;
    size_t eventsPerSecond = 200;
    size_t eventBacklog = 256;
    int timeoutSeconds = 5;  // a socket's reads and writes; a reply's wait for a frame
};
inline constexpr ControlLimits kLimits{};

struct ControlOptions {
    std::string address = "127.0.0.1";
    uint16_t port = 0;          // 0: any free port
    std::string token;          // empty: a random one
    std::string baseDir = ".";  // relative media paths of actions
};

class LUMETS_SCENE_API CControlServer {
  public:
    explicit CControlServer(ControlOptions options);
    // Stops the server and joins its threads.
    ~CControlServer();
    CControlServer(const CControlServer&) = delete;
    CControlServer& operator=(const CControlServer&) = delete;

    // Binds and starts serving. False, with the reason in *error.
    bool Start(std::string* error);
    void Stop();
    // "http://127.0.0.1:PORT/", and the address that opens the page with the
    // token: "http://127.0.0.1:PORT/?token=...".
    std::string Url() const;
    std::string PageUrl() const;

    // The frame loop, before it draws frame number `frame`: carries out the
    // actions queued since the last boundary, in order.
    void TakeActions(CScenePlayer& player, uint64_t frame);
    // The frame loop, once frame number `frame` is drawn into `drawn`: the
    // state, the events and the preview follow it.
    void Publish(CScenePlayer& player, uint64_t frame, const lumets_frame& drawn);
    // Whether the page shows the frame: a host that draws on the GPU reads a
    // frame back for Publish only then (a frame without data publishes the
    // state alone).
    bool PreviewWanted() const;

    struct Impl;

  private:
    std::unique_ptr<Impl> m_impl;
};

}  // namespace lumets::playback

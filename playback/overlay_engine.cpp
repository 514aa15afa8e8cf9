#include "overlay_engine.h"

#include <algorithm>
#include <cctype>
#include <cmath>

#include "paths.h"
#include "scene_limits.h"

namespace lumets::playback {

namespace {

// The furthest one buffer moves the scene on: the player steps through every
// timer on the way, about 1.4 ms a scene second, so a jump of hours (a live
// source's long gap, a hostile timestamp) would stall the stream. The rest
// of a longer jump is skipped.
constexpr uint64_t kMaxStepMs = 60000;
constexpr size_t kMaxTextBytes = static_cast<size_t>(limits::kSceneBytes.max);

}  // namespace

bool ParseControl(const std::string& text, ControlOptions* options) {
    std::string address = "127.0.0.1";
    std::string port = text == "auto" ? "0" : text;
    if (const size_t colon = text.rfind(':'); colon != std::string::npos) {
        address = text.substr(0, colon);
        port = text.substr(colon + 1);
        if (address.size() > 2 && address.front() == '[' && address.back() == ']') {
            address = address.substr(1, address.size() - 2);
        }
    }
    const bool digits = std::all_of(port.begin(), port.end(), [](char c) {
        return std::isdigit(static_cast<unsigned char>(c));
    });
    if (address.empty() || port.empty() || port.size() > 5 || !digits || std::stoul(port) > 65535) {
        return false;
    }
    options->address = address;
    options->port = static_cast<uint16_t>(std::stoul(port));
    return true;
}

COverlayEngine::COverlayEngine() = default;

COverlayEngine::~COverlayEngine() {
    Stop();
}

void COverlayEngine::SetSource(SceneSource source) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_source = std::move(source);
    m_switch = true;
}

SceneSource COverlayEngine::Source() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_source;
}

void COverlayEngine::SetControl(std::string control) {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_control = std::move(control);
}

std::string COverlayEngine::Control() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_control;
}

std::unique_ptr<COverlayEngine::Show> COverlayEngine::Load(const SceneSource& source,
                                                           Failure* failure) {
    using Kind = Failure::Kind;
    auto show = std::make_unique<Show>();
    show->baseDir = ".";
    try {
        if (source.inlineText) {
            if (source.value.size() > kMaxTextBytes) {
                throw SceneError("scene-string: larger than 16 MiB; no scene is that large");
            }
            show->scene = ParseScene(source.value, "scene-string", ".", WhyNotPlayable);
        } else {
            // A file that is not there is told apart from one that does not read.
            if (const std::string why = WhyNotAFile(source.value); !why.empty()) {
                *failure = {why == "not found" ? Kind::NotFound : Kind::Unreadable,
                            "scene file " + source.value + ": " + why};
                return nullptr;
            }
            show->scene = LoadScene(source.value, WhyNotPlayable);
            show->baseDir = SceneFolder(source.value);
        }
    } catch (const SceneError& error) {
        *failure = {Kind::Malformed, error.what()};
        return nullptr;
    }
    show->player = std::make_unique<CScenePlayer>(show->scene);
    if (!show->player->Ok()) {
        *failure = {Kind::Player, show->player->Error()};
        return nullptr;
    }
    return show;
}

Failure COverlayEngine::Start() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_server.reset();
    m_show.reset();
    m_switch = false;
    m_originMs = m_lastMs = m_frames = 0;
    m_watch = CPlayingWatch();
    Failure failure;
    if (!m_source.value.empty() && !(m_show = Load(m_source, &failure))) {
        return failure;
    }
    if (!m_control.empty()) {
        ControlOptions options;
        std::string why = "must be auto, PORT or ADDRESS:PORT";
        if (ParseControl(m_control, &options)) {
            options.baseDir = m_show ? m_show->baseDir : ".";
            m_server = std::make_unique<CControlServer>(std::move(options));
            if (m_server->Start(&why)) {
                return failure;
            }
        }
        m_server.reset();
        m_show.reset();
        return {Failure::Kind::Control, "control \"" + m_control + "\": " + why};
    }
    return failure;
}

void COverlayEngine::Stop() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_server.reset();  // joins its threads; they never take m_lock
    m_show.reset();
    m_switch = false;
}

bool COverlayEngine::Apply(const std::string& json, std::string* error) {
    static const std::string kNoScene = "no scene plays";
    std::string baseDir;
    {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (!m_show) {
            *error = kNoScene;
            return false;
        }
        baseDir = m_show->baseDir;
    }
    // Read without the lock: checking a movie it names opens the file.
    Action action;
    try {
        if (json.size() > kMaxTextBytes) {
            throw SceneError("action: larger than 16 MiB");
        }
        action = ParseAction(json, "action", baseDir, WhyNotPlayable);
    } catch (const SceneError& failure) {
        *error = failure.what();
        return false;
    }
    const std::lock_guard<std::mutex> lock(m_lock);
    const std::string why = m_show ? m_show->player->Apply(action) : kNoScene;
    *error = why.empty() || !m_show ? why : "action: " + why;
    return why.empty();
}

CScenePlayer* COverlayEngine::Step(std::optional<uint64_t> runningMs, FrameReport* report) {
    const uint64_t now = runningMs.value_or(m_lastMs);
    m_lastMs = now;
    if (m_switch) {
        // The scene before keeps playing when the new one does not read.
        m_switch = false;
        Failure failure;
        std::unique_ptr<Show> show = m_source.value.empty() ? nullptr : Load(m_source, &failure);
        if (show || m_source.value.empty()) {
            m_show = std::move(show);
            m_originMs = now;
        } else {
            report->warning = failure.message;
        }
    }
    if (!m_show) {
        return nullptr;
    }
    // Time that goes back (a seek, a flush) starts the scene again from its
    // file, played forward to the new time; live actions since are gone.
    if (now < m_originMs) {
        m_originMs = 0;
    }
    // The scene starts again (from 0) when time went back before it.
    const uint64_t from = now - m_originMs < m_show->player->NowMs() ? 0 : m_show->player->NowMs();
    if (now - m_originMs > from + kMaxStepMs) {
        m_originMs = now - from - kMaxStepMs;
    }
    PlayTo(m_show->player, m_show->scene, now - m_originMs);
    if (m_server) {
        m_server->TakeActions(*m_show->player, m_frames);
    }
    return m_show->player.get();
}

void COverlayEngine::Finish(CScenePlayer& player, const lumets_frame& drawn, bool follow,
                            FrameReport* report) {
    if (m_server) {
        m_server->Publish(player, m_frames, drawn);
    }
    ++m_frames;
    if (follow) {
        report->changes = m_watch.Update(player.Playing());
    }
}

FrameReport COverlayEngine::Frame(std::optional<uint64_t> runningMs, const lumets_frame& frame,
                                  bool follow) {
    FrameReport report;
    const std::lock_guard<std::mutex> lock(m_lock);
    if (CScenePlayer* player = Step(runningMs, &report)) {
        report.drawn = player->Draw(frame);
        Finish(*player, frame, follow, &report);
    }
    return report;
}

FrameReport COverlayEngine::FrameOnGpu(std::optional<uint64_t> runningMs, int32_t width,
                                       int32_t height, bool follow, const lumets_frame* preview) {
    FrameReport report;
    const std::lock_guard<std::mutex> lock(m_lock);
    if (CScenePlayer* player = Step(runningMs, &report)) {
        report.drawn = player->DrawToTarget(width, height);
        // Without a picture the page still gets the state, at this size.
        lumets_frame sized{};
        sized.width = width;
        sized.height = height;
        Finish(*player, preview != nullptr ? *preview : sized, follow, &report);
    }
    return report;
}

bool COverlayEngine::PreviewWanted() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_server && m_server->PreviewWanted();
}

int64_t COverlayEngine::DurationMs() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_show ? std::llround(m_show->scene.duration * 1000) : 0;
}

void COverlayEngine::Restart() {
    const std::lock_guard<std::mutex> lock(m_lock);
    m_switch = true;
}

std::string COverlayEngine::ControlUrl() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_server ? m_server->Url() : std::string();
}

std::string COverlayEngine::ControlPageUrl() const {
    const std::lock_guard<std::mutex> lock(m_lock);
    return m_server ? m_server->PageUrl() : std::string();
}

}  // namespace lumets::playback

#include "scene_player.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

extern "C" {
#include <libswscale/swscale.h>
}

#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_platform/geometry.h"
#include "lumets_platform/utf16.h"
#include "scene_limits.h"

namespace lumets::playback {

namespace {

// Puts back the context that was current on the calling thread: a host calls
// in on its own GL thread (a studio's graphics thread) and must find its
// context where it left it after the player used its own.
class CKeepCurrentContext {
  public:
    CKeepCurrentContext()
        : m_display(eglGetCurrentDisplay()),
          m_context(eglGetCurrentContext()),
          m_draw(eglGetCurrentSurface(EGL_DRAW)),
          m_read(eglGetCurrentSurface(EGL_READ)) {}
    ~CKeepCurrentContext() {
        if (m_context != EGL_NO_CONTEXT && eglGetCurrentContext() != m_context) {
            eglMakeCurrent(m_display, m_draw, m_read, m_context);
        }
    }
    CKeepCurrentContext(const CKeepCurrentContext&) = delete;
    CKeepCurrentContext& operator=(const CKeepCurrentContext&) = delete;

  private:
    EGLDisplay m_display;
    EGLContext m_context;
    EGLSurface m_draw;
    EGLSurface m_read;
};

}  // namespace
namespace {

// The host's records live on the heap: a text part is 128 KiB.
void FillText(TextPart& part, const TextLayer& text) {
    std::memset(static_cast<void*>(&part), 0, sizeof part);
    platform::U16CopyTruncate(part.text, std::size(part.text), text.text.c_str(), text.text.size());
    part.style = text.style;
    part.rcClip = text.clip;
    part.x = text.pos.x;
    part.y = text.pos.y;
    part.nDirection = text.scroll.direction;
    part.nSpeed = text.scroll.speed;
    part.bWrap = text.scroll.wrap;
}

BackgroundPart PlatePart(const PlateLayer& plate) {
    BackgroundPart part{};
    part.crColor = plate.colour;
    part.nOpacity = plate.opacity;
    part.bSpanClip = plate.spanClip ? 1 : 0;
    return part;
}

}  // namespace

struct CScenePlayer::Records {
    std::unique_ptr<SwfPart> swf;
    std::unique_ptr<TextPart> text;
    std::unique_ptr<BackgroundPart> plate;
};

uint64_t FrameTimeMs(uint64_t index, double fps) {
    return static_cast<uint64_t>(std::llround(static_cast<double>(index) * 1000.0 / fps));
}

CScenePlayer::CScenePlayer(const Scene& scene, bool gpu, int32_t gpuWidth, int32_t gpuHeight)
    : m_scene(scene), m_gpu(gpu), m_gpuWidth(gpuWidth), m_gpuHeight(gpuHeight) {
    if (gpu && (!limits::kFrameSide.Admits(gpuWidth) || !limits::kFrameSide.Admits(gpuHeight))) {
        m_error = "frames must be 16 to 8192 pixels a side";
        return;
    }
    // Every manager, and every thread and event it makes, lives on this
    // scene's clock.
    const Clock::Scope onClock(m_clock);
    const CKeepCurrentContext keep;
    if (gpu || scene.virtualScene) {
        m_gl = std::make_unique<host::CHeadlessGl>();
        if (!m_gl->OpenDisplay() || !m_gl->CreateContext() ||
            !m_gl->CreateFramebuffer(gpu ? gpuWidth : 16, gpu ? gpuHeight : 16)) {
            m_error = "no OpenGL for " + std::string(gpu ? "--gpu" : "the scene movie") + ": " +
                      m_gl->Error();
            m_gl.reset();
            return;
        }
    }
    if (gpu) {
        m_combiner = CProcessorFactory::CreateCombiner();
        m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        m_frameTexture.Reset(CGLObjectFactory::CreateTexture());
        if (m_combiner == nullptr || !m_combiner->Init() || m_pbo == nullptr || !m_frameTexture) {
            m_error = "the GPU combiner could not start";
            return;
        }
        m_bgra.resize(size_t{4} * gpuWidth * gpuHeight);
    }
    m_subtitles = CreateLumetManager();
    for (const Subtitle& subtitle : scene.subtitles) {
        Add(subtitle);
    }
    BannerChange initial;
    initial.banners = Banners{scene.tavrin, scene.quellin, scene.ombrel};
    PutUp(initial);
    if (scene.virtualScene) {
        m_virtualScene = CreateVirtualSceneManager();
        m_virtualScene->OpenScene(platform::Utf8ToU16(scene.virtualScene->path).c_str(), 0);
    }
    m_clock.WaitUntilSettled();
}

CScenePlayer::~CScenePlayer() {
    const Clock::Scope onClock(m_clock);
    const CKeepCurrentContext keep;
    // GL objects go in the context that made them: GPU frames' in the
    // player's own; DrawToTarget's in the caller's, current now.
    if (m_gpu && m_gl) {
        m_gl->MakeCurrent();
    }
    if (m_subtitles != nullptr) {
        m_subtitles->ReleaseGpuResources();  // the manager leaves its GPU objects to its host
    }
    DeleteLumetManager(m_subtitles);
    DeleteWeirdSubtitleManager(m_banners);
    CGLObjectFactory::DestroyPBO(m_pbo);
    m_frameTexture.Reset();
    m_ombrelTexture.Reset();
    CProcessorFactory::DestroyCombiner(m_combiner);
    if (m_movieOn == MovieOn::OwnContext && m_gl) {
        m_gl->MakeCurrent();
    }
    DeleteVirtualSceneManager(m_virtualScene);
    m_gl.reset();  // closing it leaves no context current: before `keep` puts the caller's back
}

void CScenePlayer::Add(const Subtitle& subtitle) {
    std::vector<Records> records(subtitle.items.size());
    std::vector<ItemDescription> items(subtitle.items.size());
    for (size_t i = 0; i < subtitle.items.size(); ++i) {
        const Item& item = subtitle.items[i];
        Records& r = records[i];
        ItemDescription& d = items[i];
        std::memset(static_cast<void*>(&d), 0, sizeof d);
        if (item.movie) {
            r.swf = std::make_unique<SwfPart>();
            std::memset(static_cast<void*>(r.swf.get()), 0, sizeof(SwfPart));
            const std::u16string path = platform::Utf8ToU16(item.movie->path);
            platform::U16CopyTruncate(r.swf->szPath, std::size(r.swf->szPath), path.c_str(),
                                      path.size());
            r.swf->bIgnoreMovieEnd = item.movie->ignoreMovieEnd;
            r.swf->rcClip = item.movie->clip;
            r.swf->x = item.movie->pos.x;
            r.swf->y = item.movie->pos.y;
            r.swf->nDirection = item.movie->scroll.direction;
            r.swf->nSpeed = item.movie->scroll.speed;
            r.swf->bWrap = item.movie->scroll.wrap;
            d.pSwf = r.swf.get();
        }
        if (item.text) {
            r.text = std::make_unique<TextPart>();
            FillText(*r.text, *item.text);
            d.pText = r.text.get();
        }
        if (item.plate) {
            r.plate = std::make_unique<BackgroundPart>(PlatePart(*item.plate));
            d.pBackground = r.plate.get();
        }
        d.nPlayCount = item.playCount;
    }
    m_subtitles->AddSubtitle(subtitle.id.c_str(), subtitle.group.c_str(), items.data(),
                             static_cast<uint32_t>(items.size()), subtitle.pos.x, subtitle.pos.y,
                             subtitle.loop, subtitle.intervalMs);
    m_added[subtitle.id] = subtitle.group;
}

void CScenePlayer::PutUp(const BannerChange& change) {
    using Kind = BannerChange::Kind;
    const Banners& b = change.banners;
    if (m_banners == nullptr && (b.tavrin || b.quellin || b.ombrel)) {
        m_banners = CreateWeirdSubtitleManager();
    }
    if (change.tavrin == Kind::TakeDown) {
        m_shown.tavrin.reset();
    }
    if (change.quellin == Kind::TakeDown) {
        m_shown.quellin.reset();
    }
    if (change.ombrel == Kind::TakeDown) {
        m_shown.ombrel.reset();
    }
    if (const auto& t = b.tavrin) {
        m_banners->SetTavrinTexts(t->texts[0].c_str(), t->texts[1].c_str(), t->texts[2].c_str(),
                                  t->texts[3].c_str(), t->texts[4].c_str(), t->texts[5].c_str());
        m_banners->LoadTavrinImages(platform::Utf8ToU16(t->images[0]).c_str(),
                                    platform::Utf8ToU16(t->images[1]).c_str());
        m_shown.tavrin = t;
    }
    if (const auto& q = b.quellin) {
        m_banners->SetQuellinTexts(q->texts[0].c_str(), q->texts[1].c_str(), 0);
        m_banners->LoadQuellinPlate(platform::Utf8ToU16(q->plate).c_str());
        m_shown.quellin = q;
    }
    if (const auto& o = b.ombrel) {
        m_banners->SetOmbrelText(o->text.c_str(), o->fontSize);
        m_banners->LoadOmbrelImages(platform::Utf8ToU16(o->caps).c_str(),
                                    platform::Utf8ToU16(o->middle).c_str());
        m_shown.ombrel = o;
        // An action leaves the rect empty for the whole scene.
        if (platform::IsRectEmpty(&m_shown.ombrel->rect)) {
            m_shown.ombrel->rect = RECT{0, 0, m_scene.width, m_scene.height};
        }
    }
}

bool CScenePlayer::Plays(const std::u16string& id) {
    POINT at{};
    return m_subtitles->GetSubtitlePosition(id.c_str(), &at);
}

void CScenePlayer::Forget() {
    for (auto it = m_added.begin(); it != m_added.end();) {
        it = Plays(it->first) ? std::next(it) : m_added.erase(it);
    }
}

std::string CScenePlayer::Apply(const Action& action) {
    if (!Ok()) {
        return m_error;
    }
    const Clock::Scope onClock(m_clock);
    const auto unknown = [](const std::u16string& id) {
        return "no subtitle plays under the id \"" + platform::U16ToUtf8(id.c_str(), id.size()) +
               "\"";
    };
    std::string why;
    switch (action.kind) {
        case Action::Kind::Add:
            Forget();
            if (m_added.size() >= static_cast<size_t>(limits::kSubtitlesAtOnce.max) &&
                m_added.count(action.subtitle->id) == 0) {
                return std::to_string(static_cast<size_t>(limits::kSubtitlesAtOnce.max)) +
                       " subtitles play already; remove or trim some first";
            }
            Add(*action.subtitle);
            break;
        case Action::Kind::Remove:
            if (!Plays(action.id)) {
                return unknown(action.id);
            }
            m_subtitles->RemoveSubtitle(action.id.c_str());
            break;
        case Action::Kind::RemoveAll:
            m_subtitles->RemoveAllSubtitles();
            break;
        case Action::Kind::Trim:
            m_subtitles->TrimGroup(action.group.c_str(), action.keep);
            break;
        case Action::Kind::Move:
            if (!Plays(action.id)) {
                return unknown(action.id);
            }
            m_subtitles->MoveSubtitle(action.id.c_str(), action.to.x, action.to.y);
            break;
        case Action::Kind::Drag: {
            // What a host does when the viewer drags: find the subtitle
            // under the pointer, then move it by as much as the pointer moved.
            // A move places the rectangle the hit test found, so the new
            // place is that rectangle's corner moved.
            char16_t id[260] = {};
            RECT rect{};
            if (!m_subtitles->HitTestGroup(action.group.c_str(), action.from.x, action.from.y, id,
                                           &rect)) {
                return "no subtitle of the group \"" +
                       platform::U16ToUtf8(action.group.c_str(), action.group.size()) +
                       "\" shows at (" + std::to_string(action.from.x) + ", " +
                       std::to_string(action.from.y) + ")";
            }
            m_subtitles->MoveSubtitle(id, rect.left + action.to.x - action.from.x,
                                      rect.top + action.to.y - action.from.y);
            break;
        }
        case Action::Kind::Text: {
            if (!Plays(action.id)) {
                return unknown(action.id);
            }
            auto part = std::make_unique<TextPart>();
            FillText(*part, *action.text);
            m_subtitles->UpdateSubtitleText(action.id.c_str(), part.get());
            break;
        }
        case Action::Kind::Plate: {
            if (!Plays(action.id)) {
                return unknown(action.id);
            }
            const BackgroundPart part = PlatePart(action.plate);
            m_subtitles->UpdateSubtitleBackground(action.id.c_str(), &part);
            break;
        }
        case Action::Kind::Banners:
            PutUp(*action.banners);
            break;
    }
    m_clock.WaitUntilSettled();
    return why;
}

void CScenePlayer::AdvanceTo(uint64_t ms) {
    if (!Ok()) {
        return;
    }
    const std::vector<Action>& actions = m_scene.actions;
    for (; m_nextAction < actions.size(); ++m_nextAction) {
        const auto at = static_cast<uint64_t>(std::llround(actions[m_nextAction].at * 1000.0));
        if (at > ms) {
            break;
        }
        if (at > m_nowMs) {
            m_clock.AdvanceBy(at - m_nowMs);
            m_nowMs = at;
        }
        // A scripted action on an id that has gone does nothing, as the
        // manager's own calls do.
        Apply(actions[m_nextAction]);
    }
    if (ms > m_nowMs) {
        m_clock.AdvanceBy(ms - m_nowMs);
        m_nowMs = ms;
    }
}

bool CScenePlayer::Draw(const lumets_frame& frame) {
    const PictureView view = FrameView(&frame);
    if (!Ok() || view.data == nullptr) {
        return false;
    }
    const Clock::Scope onClock(m_clock);
    const float scale = static_cast<float>(frame.width) / static_cast<float>(m_scene.width);
    const bool packed24 = frame.format == LUMETS_FORMAT_BGR24 &&
                          frame.flags == LUMETS_FRAME_BOTTOM_UP && frame.width == m_gpuWidth &&
                          frame.height == m_gpuHeight &&
                          frame.stride == static_cast<int64_t>(view.strideBytes);
    if (m_gpu && m_gl && packed24) {
        DrawSubtitlesOnGpu(frame);
    } else {
        m_subtitles->DrawToFrame(&frame, scale);
    }
    if (m_banners != nullptr) {
        // Banners are placed in the scene's coordinates; the first two keep
        // the size the library draws them at, the third scales.
        const auto at = [scale](int32_t v) { return ScaleCoordinate(v, scale); };
        if (m_shown.tavrin) {
            const POINT origin{at(m_shown.tavrin->origin.x), at(m_shown.tavrin->origin.y)};
            m_banners->ComposeTavrinToFrame(&frame, &origin);
        }
        if (m_shown.quellin) {
            const POINT origin{at(m_shown.quellin->origin.x), at(m_shown.quellin->origin.y)};
            m_banners->ComposeQuellinToFrame(&frame, &origin);
        }
        if (const auto& o = m_shown.ombrel) {
            const RECT rect{at(o->rect.left), at(o->rect.top), at(o->rect.right),
                            at(o->rect.bottom)};
            m_banners->ComposeOmbrelToFrame(&frame, &rect, o->scale * scale);
        }
    }
    if (m_virtualScene != nullptr && m_gl) {
        DrawVirtualScene(frame, scale);
    }
    return true;
}

bool CScenePlayer::DrawToTarget(int32_t width, int32_t height) {
    if (!Ok() || width <= 0 || height <= 0 || width > 16384 || height > 16384) {
        return false;
    }
    const Clock::Scope onClock(m_clock);
    const float scale = static_cast<float>(width) / static_cast<float>(m_scene.width);
    m_subtitles->DrawToTarget(width, height, scale);
    if (m_combiner == nullptr) {
        m_combiner = CProcessorFactory::CreateCombiner();
        if (m_combiner == nullptr || !m_combiner->Init()) {
            return false;
        }
    }
    // Target units are the scene's own: the combiner maps them onto the
    // viewport, so the banner and the movie scale with the frame.
    const auto draw = [&](GLuint texture, const RECT& rect) {
        m_combiner->SetDestination(&rect, m_scene.width, m_scene.height, 1);
        m_combiner->DrawTexture(texture, 0);
    };
    if (const auto& o = m_shown.ombrel; o && m_banners != nullptr) {
        if (!m_ombrelTexture) {
            m_ombrelTexture.Reset(CGLObjectFactory::CreateTexture());
        }
        if (m_pbo == nullptr) {
            m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        }
        int w = 0;
        int h = 0;
        m_banners->DrawOmbrelToTexture(m_ombrelTexture.Get(), &w, &h, m_pbo);
        const int64_t sw = static_cast<int64_t>(static_cast<float>(w) * o->scale);
        const int64_t sh = static_cast<int64_t>(static_cast<float>(h) * o->scale);
        if (sw > 0 && sh > 0) {
            const int64_t x = (int64_t{o->rect.left} + o->rect.right - sw) / 2;
            const int64_t y = (int64_t{o->rect.top} + o->rect.bottom - sh) / 2;
            draw(m_ombrelTexture.Get(), RECT{SaturateToInt32(x), SaturateToInt32(y),
                                             SaturateToInt32(x + sw), SaturateToInt32(y + sh)});
        }
    }
    // The movie's texture lives in the first context that drew it.
    if (m_virtualScene != nullptr && m_movieOn != MovieOn::OwnContext) {
        m_movieOn = MovieOn::CallersContext;
        m_virtualScene->RenderScene(0, 0);
        if (const GLuint texture = m_virtualScene->GetSceneTexture(); texture != 0) {
            draw(texture, m_scene.virtualScene->rect);
        }
    }
    return true;
}

std::vector<PlayingSubtitle> CScenePlayer::Playing() {
    std::vector<PlayingSubtitle> playing;
    if (!Ok()) {
        return playing;
    }
    const Clock::Scope onClock(m_clock);
    Forget();
    std::map<std::u16string, std::vector<SubtitleRectEntry>> byGroup;
    for (const auto& [id, group] : m_added) {
        byGroup[group].resize(m_added.size());
    }
    for (auto& [group, entries] : byGroup) {
        uint32_t count = static_cast<uint32_t>(entries.size());
        if (!m_subtitles->GetPlayingInGroup(group.c_str(), entries.data(), &count)) {
            continue;
        }
        for (uint32_t i = 0; i < count && i < entries.size(); ++i) {
            playing.push_back({platform::U16ToUtf8(entries[i].id, std::size(entries[i].id)),
                               platform::U16ToUtf8(group.c_str(), group.size()), entries[i].rect});
        }
    }
    return playing;
}

std::vector<SubtitleChange> CPlayingWatch::Update(const std::vector<PlayingSubtitle>& playing) {
    std::map<std::string, std::string> now;
    for (const PlayingSubtitle& subtitle : playing) {
        now[subtitle.id] = subtitle.group;
    }
    std::vector<SubtitleChange> changes;
    for (const auto& [id, group] : m_playing) {
        if (now.count(id) == 0) {
            changes.push_back({id, group, false});
        }
    }
    for (const auto& [id, group] : now) {
        if (m_playing.count(id) == 0) {
            changes.push_back({id, group, true});
        }
    }
    m_playing = std::move(now);
    return changes;
}

bool PlayTo(std::unique_ptr<CScenePlayer>& player, const Scene& scene, uint64_t ms) {
    if (ms < player->NowMs()) {
        player.reset();  // the old managers end before the new ones start
        player = std::make_unique<CScenePlayer>(scene);
        if (!player->Ok()) {
            return false;
        }
    }
    player->AdvanceTo(ms);
    return true;
}

std::string CScenePlayer::StateJson() {
    return StateJson(Playing());
}

std::string CScenePlayer::StateJson(const std::vector<PlayingSubtitle>& playing) {
    nlohmann::json subtitles = nlohmann::json::array();
    for (const PlayingSubtitle& p : playing) {
        const RECT& r = p.rect;
        subtitles.push_back(
            {{"id", p.id}, {"group", p.group}, {"rect", {r.left, r.top, r.right, r.bottom}}});
    }
    const auto texts = [](const auto& list) {
        nlohmann::json out = nlohmann::json::array();
        for (const std::u16string& text : list) {
            out.push_back(platform::U16ToUtf8(text.c_str(), text.size()));
        }
        return out;
    };
    // Each banner as a scene file writes it, so that a host can send it
    // back changed in a banners action.
    const auto point = [](POINT p) { return nlohmann::json{p.x, p.y}; };
    // Absolute, so that they name the same files whatever folder reads them.
    const auto file = [](const std::string& path) {
        std::error_code ignored;
        return std::filesystem::absolute(path, ignored).lexically_normal().string();
    };
    nlohmann::json banners = {{"tavrin", nullptr}, {"quellin", nullptr}, {"ombrel", nullptr}};
    if (const auto& t = m_shown.tavrin) {
        banners["tavrin"] = {{"texts", texts(t->texts)},
                             {"image1", file(t->images[0])},
                             {"image2", file(t->images[1])},
                             {"origin", point(t->origin)}};
    }
    if (const auto& q = m_shown.quellin) {
        banners["quellin"] = {
            {"texts", texts(q->texts)}, {"plate", file(q->plate)}, {"origin", point(q->origin)}};
    }
    if (const auto& o = m_shown.ombrel) {
        const RECT& r = o->rect;
        banners["ombrel"] = {{"text", platform::U16ToUtf8(o->text.c_str(), o->text.size())},
                             {"fontSize", o->fontSize},
                             {"caps", file(o->caps)},
                             {"middle", file(o->middle)},
                             {"rect", {r.left, r.top, r.right, r.bottom}},
                             {"scale", o->scale}};
    }
    const nlohmann::json state = {
        {"time_ms", m_nowMs}, {"subtitles", subtitles}, {"banners", banners}};
    return state.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

void CScenePlayer::DrawSubtitlesOnGpu(const lumets_frame& frame) {
    const CKeepCurrentContext keep;
    m_gl->MakeCurrent();
    // The frame goes in as a texture drawn over the whole target, the
    // subtitles over it, and the result comes back.
    const int32_t w = frame.width;
    const int32_t h = frame.height;
    const float scale = static_cast<float>(w) / static_cast<float>(m_scene.width);
    const RECT whole{0, 0, w, h};
    const PictureView frame24 = PackedPicture(static_cast<uint8_t*>(frame.data), w, h, 24);
    const PictureView frame32 = PackedPicture(m_bgra.data(), w, h, 32);
    CopyRectPixels(frame32, whole, frame24, whole);
    m_pbo->Resize(w, h);
    m_pbo->Upload(m_frameTexture.Get(), m_bgra.data(), static_cast<uint32_t>(m_bgra.size()),
                  GL_BGRA);
    m_combiner->Clear(0);
    m_combiner->SetDestination(&whole, w, h, 1);
    m_combiner->DrawTexture(m_frameTexture.Get(), 0);
    m_subtitles->DrawToTarget(w, h, scale);
    const std::vector<uint8_t> pixels = m_gl->ReadPixels();
    CopyRectPixels(frame24, whole, PackedPicture(pixels.data(), w, h, 32), whole);
}

void CScenePlayer::DrawVirtualScene(const lumets_frame& frame, float scale) {
    if (m_movieOn == MovieOn::CallersContext) {
        return;
    }
    m_movieOn = MovieOn::OwnContext;
    const CKeepCurrentContext keep;
    m_gl->MakeCurrent();
    m_virtualScene->RenderScene(0, 0);
    const GLuint texture = m_virtualScene->GetSceneTexture();
    GLint tw = 0;
    GLint th = 0;
    glBindTexture(GL_TEXTURE_2D, texture);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, &tw);
    glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, &th);
    glBindTexture(GL_TEXTURE_2D, 0);
    const RECT& r = m_scene.virtualScene->rect;
    const auto scaled = [scale](int32_t v) {
        return static_cast<int32_t>(static_cast<float>(v) * scale);
    };
    const int32_t w = scaled(r.right - r.left);
    const int32_t h = scaled(r.bottom - r.top);
    if (texture == 0 || tw <= 0 || th <= 0 || w <= 0 || h <= 0 || !PicturePixelsAllowed(w, h)) {
        return;
    }
    const std::vector<uint8_t> pixels = host::CHeadlessGl::ReadBackTexture(texture, tw, th);
    std::vector<uint8_t> fitted(size_t{4} * w * h);
    SwsContext* scaler = m_sceneScaler.Get(tw, th, w, h, AV_PIX_FMT_BGRA);
    if (scaler == nullptr || pixels.size() < size_t{4} * tw * th) {
        return;
    }
    const uint8_t* src[1] = {pixels.data()};
    const int srcStride[1] = {4 * tw};
    uint8_t* dst[1] = {fitted.data()};
    const int dstStride[1] = {4 * w};
    sws_scale(scaler, src, srcStride, 0, th, dst, dstStride);
    BlendIntoFrame(FrameView(&frame), RECT{0, 0, frame.width, frame.height},
                   POINT{scaled(r.left), scaled(r.top)}, PackedPicture(fitted.data(), w, h, 32));
}

}  // namespace lumets::playback

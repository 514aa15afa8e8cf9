#include "scene_player.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <cmath>
#include <cstring>

extern "C" {
#include <libswscale/swscale.h>
}

#include "lumets_common/pixel_ops.h"
#include "lumets_platform/utf16.h"

namespace lumets::playback {
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

CScenePlayer::CScenePlayer(const Scene& scene, int32_t width, int32_t height, double fps, bool gpu)
    : m_scene(scene),
      m_width(width),
      m_height(height),
      m_fps(fps),
      m_scale(static_cast<float>(width) / static_cast<float>(scene.width)),
      m_gpu(gpu) {
    if (!(fps >= 1 && fps <= 240) || width < 16 || height < 16 || width > 8192 || height > 8192) {
        m_error = "frames must be 16 to 8192 pixels a side, at 1 to 240 frames per second";
        return;
    }
    if (gpu || scene.virtualScene) {
        m_gl = std::make_unique<host::CHeadlessGl>();
        if (!m_gl->OpenDisplay() || !m_gl->CreateContext() ||
            !m_gl->CreateFramebuffer(width, height)) {
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
        m_bgra.resize(size_t{4} * width * height);
    }
    m_subtitles = CreateLumetManager();
    for (const Subtitle& subtitle : scene.subtitles) {
        Add(subtitle);
    }
    if (scene.tavrin || scene.quellin || scene.ombrel) {
        m_banners = CreateWeirdSubtitleManager();
    }
    if (const auto& t = scene.tavrin) {
        m_banners->SetTavrinTexts(t->texts[0].c_str(), t->texts[1].c_str(), t->texts[2].c_str(),
                                  t->texts[3].c_str(), t->texts[4].c_str(), t->texts[5].c_str());
        m_banners->LoadTavrinImages(platform::Utf8ToU16(t->images[0]).c_str(),
                                    platform::Utf8ToU16(t->images[1]).c_str());
    }
    if (const auto& q = scene.quellin) {
        m_banners->SetQuellinTexts(q->texts[0].c_str(), q->texts[1].c_str(), 0);
        m_banners->LoadQuellinPlate(platform::Utf8ToU16(q->plate).c_str());
    }
    if (const auto& o = scene.ombrel) {
        m_banners->SetOmbrelText(o->text.c_str(), o->fontSize);
        m_banners->LoadOmbrelImages(platform::Utf8ToU16(o->caps).c_str(),
                                    platform::Utf8ToU16(o->middle).c_str());
    }
    if (scene.virtualScene) {
        m_virtualScene = CreateVirtualSceneManager();
        m_virtualScene->OpenScene(platform::Utf8ToU16(scene.virtualScene->path).c_str(), 0);
    }
    WaitUntilSettled();
}

CScenePlayer::~CScenePlayer() {
    if (m_gl) {
        m_gl->MakeCurrent();
    }
    DeleteLumetManager(m_subtitles);  // its GL objects go while the context is current
    DeleteWeirdSubtitleManager(m_banners);
    DeleteVirtualSceneManager(m_virtualScene);
    CGLObjectFactory::DestroyPBO(m_pbo);
    m_frameTexture.Reset();  // while the context is current
    CProcessorFactory::DestroyCombiner(m_combiner);
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
}

void CScenePlayer::Apply(const Action& action) {
    switch (action.kind) {
        case Action::Kind::Add:
            Add(*action.subtitle);
            break;
        case Action::Kind::Remove:
            m_subtitles->RemoveSubtitle(action.id.c_str());
            break;
        case Action::Kind::RemoveAll:
            m_subtitles->RemoveAllSubtitles();
            break;
        case Action::Kind::Trim:
            m_subtitles->TrimGroup(action.group.c_str(), action.keep);
            break;
        case Action::Kind::Move:
            m_subtitles->MoveSubtitle(action.id.c_str(), action.to.x, action.to.y);
            break;
        case Action::Kind::Drag: {
            // What a host does when the viewer drags: find the subtitle
            // under the pointer, then move it by as much as the pointer moved.
            char16_t id[260] = {};
            RECT rect{};
            POINT at{};
            if (m_subtitles->HitTestGroup(action.group.c_str(), action.from.x, action.from.y, id,
                                          &rect) &&
                m_subtitles->GetSubtitlePosition(id, &at)) {
                m_subtitles->MoveSubtitle(id, at.x + action.to.x - action.from.x,
                                          at.y + action.to.y - action.from.y);
            }
            break;
        }
        case Action::Kind::Text: {
            auto part = std::make_unique<TextPart>();
            FillText(*part, *action.text);
            m_subtitles->UpdateSubtitleText(action.id.c_str(), part.get());
            break;
        }
        case Action::Kind::Plate: {
            const BackgroundPart part = PlatePart(action.plate);
            m_subtitles->UpdateSubtitleBackground(action.id.c_str(), &part);
            break;
        }
    }
}

void CScenePlayer::AdvanceTo(uint64_t ms) {
    if (ms > m_nowMs) {
        AdvanceBy(ms - m_nowMs);
        m_nowMs = ms;
    }
}

void CScenePlayer::Render(uint64_t index, uint8_t* frame) {
    if (!Ok()) {
        return;
    }
    const auto frameMs =
        static_cast<uint64_t>(std::llround(static_cast<double>(index) * 1000.0 / m_fps));
    const std::vector<Action>& actions = m_scene.actions;
    for (; m_nextAction < actions.size(); ++m_nextAction) {
        const auto at = static_cast<uint64_t>(std::llround(actions[m_nextAction].at * 1000.0));
        if (at > frameMs) {
            break;
        }
        AdvanceTo(at);
        Apply(actions[m_nextAction]);
    }
    AdvanceTo(frameMs);

    if (m_gpu && m_gl) {
        DrawSubtitlesOnGpu(frame);
    } else {
        m_subtitles->DrawToBuffer(frame, static_cast<uint32_t>(m_width),
                                  static_cast<uint32_t>(m_height), m_scale);
    }
    if (m_banners != nullptr) {
        if (m_scene.tavrin) {
            m_banners->ComposeTavrin(frame, m_width, m_height, &m_scene.tavrin->origin);
        }
        if (m_scene.quellin) {
            m_banners->ComposeQuellin(frame, m_width, m_height, &m_scene.quellin->origin);
        }
        if (const auto& o = m_scene.ombrel) {
            m_banners->ComposeOmbrel(frame, m_width, m_height, &o->rect, o->scale * m_scale);
        }
    }
    if (m_virtualScene != nullptr && m_gl) {
        DrawVirtualScene(frame);
    }
}

void CScenePlayer::DrawSubtitlesOnGpu(uint8_t* frame) {
    m_gl->MakeCurrent();
    // The frame goes in as a texture drawn over the whole target, the
    // subtitles over it, and the result comes back.
    const RECT whole{0, 0, m_width, m_height};
    const PictureView frame24 = PackedPicture(frame, m_width, m_height, 24);
    const PictureView frame32 = PackedPicture(m_bgra.data(), m_width, m_height, 32);
    CopyRectPixels(frame32, whole, frame24, whole);
    m_pbo->Resize(m_width, m_height);
    m_pbo->Upload(m_frameTexture.Get(), m_bgra.data(), static_cast<uint32_t>(m_bgra.size()),
                  GL_BGRA);
    m_combiner->Clear(0);
    m_combiner->SetDestination(&whole, m_width, m_height, 1);
    m_combiner->DrawTexture(m_frameTexture.Get(), 0);
    m_subtitles->DrawToTarget(m_width, m_height, m_scale);
    const std::vector<uint8_t> pixels = m_gl->ReadPixels();
    CopyRectPixels(frame24, whole, PackedPicture(pixels.data(), m_width, m_height, 32), whole);
}

void CScenePlayer::DrawVirtualScene(uint8_t* frame) {
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
    const auto scaled = [this](int32_t v) {
        return static_cast<int32_t>(static_cast<float>(v) * m_scale);
    };
    const int32_t w = scaled(r.right - r.left);
    const int32_t h = scaled(r.bottom - r.top);
    if (texture == 0 || tw <= 0 || th <= 0 || w <= 0 || h <= 0) {
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
    BlendIntoFrame24(PackedPicture(frame, m_width, m_height, 24), RECT{0, 0, m_width, m_height},
                     POINT{scaled(r.left), scaled(r.top)}, PackedPicture(fitted.data(), w, h, 32));
}

}  // namespace lumets::playback

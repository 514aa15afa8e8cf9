// "Lumets scene", a video source for the studio: a scene file played on the
// studio's video time and drawn with the library's OpenGL path on the
// graphics thread.
//
// Threads: the studio calls create, update, destroy and the property buttons
// on its interface thread, video_tick and video_render on its graphics
// thread, and the media controls on either. COverlayEngine takes its own lock
// for every call; whatever can free GL objects (starting, stopping) runs
// inside obs_enter_graphics, always entered before the engine's lock, as the
// graphics thread holds them. Nothing is thrown into the studio.
//
// Drawing: the library draws with raw GL into a texture render of the
// source's own (premultiplied alpha, no sRGB encoding), and that goes onto
// the studio's target as a sprite with the studio's own effect and matrices.
// The library's draws put back every GL binding and switch they change, so
// the studio's cached program, vertex array and blend state stay true.
#include <obs-module.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>

#include "lumets_platform/guarded.h"
#include "obs_handles.h"
#include "overlay_engine.h"
#include "scene_limits.h"

OBS_DECLARE_MODULE()

namespace {

using lumets::obs::CGraphics;
using lumets::obs::StageSurface;
using lumets::obs::TexRender;
using lumets::playback::COverlayEngine;
using lumets::playback::Failure;
using lumets::playback::FrameReport;

constexpr const char* kLog = "[lumets-obs]";
// The sizes a source draws at, as the scenes' own.
constexpr int kMaxSide = static_cast<int>(lumets::playback::limits::kFrameSide.max);
// One tick moves the scene on by this much at most: a stalled studio (a
// debugger, a suspended laptop) resumes where it was rather than
// fast-forwarding through every timer on the way.
constexpr double kMaxTickSeconds = 1.0;

// What a callback from the studio threw, in the studio's log: nothing escapes
// into C, and the studio gets the callback's empty value.
void LogFailure(const char* what, const char* why) {
    blog(LOG_ERROR, "%s %s: %s", kLog, what, why);
}

template <typename Fn>
auto Guarded(const char* what, Fn&& fn) noexcept {
    return lumets::platform::Guarded<LogFailure>(what, std::forward<Fn>(fn));
}

class CLumetsSource {
  public:
    explicit CLumetsSource(obs_source_t* source) : m_source(source) {}

    ~CLumetsSource() {
        const CGraphics graphics;
        m_engine.Stop();  // its GL objects are in the studio's context
        m_stage.reset();
        m_picture.reset();
    }

    CLumetsSource(const CLumetsSource&) = delete;
    CLumetsSource& operator=(const CLumetsSource&) = delete;

    void Update(obs_data_t* settings) {
        const std::string path = obs_data_get_string(settings, "scene_file");
        const bool control = obs_data_get_bool(settings, "control");
        const long long port = obs_data_get_int(settings, "port");
        m_width = static_cast<uint32_t>(
            std::clamp<long long>(obs_data_get_int(settings, "width"), 0, kMaxSide));
        m_height = static_cast<uint32_t>(
            std::clamp<long long>(obs_data_get_int(settings, "height"), 0, kMaxSide));
        m_engine.SetSource({false, path});
        m_engine.SetControl(control ? std::to_string(std::clamp<long long>(port, 0, 65535)) : "");
        Failure failure;
        {
            const CGraphics graphics;
            m_timeNs = 0;
            failure = m_engine.Start();
            m_redraw = true;
        }
        SetError(failure.message);
        if (failure.kind == Failure::Kind::None && !path.empty()) {
            blog(LOG_INFO, "%s %s: playing %s%s%s", kLog, obs_source_get_name(m_source),
                 path.c_str(), control ? ", live control at " : "",
                 control ? m_engine.ControlUrl().c_str() : "");
        }
    }

    obs_properties_t* Properties() {
        obs_properties_t* props = obs_properties_create();
        obs_properties_add_path(props, "scene_file", "Scene file", OBS_PATH_FILE,
                                "Scene files (*.json);;All files (*)", nullptr);
        obs_property_t* width = obs_properties_add_int(props, "width", "Width", 0, kMaxSide, 1);
        obs_property_set_long_description(
            width, "The width the scene is drawn at, through its own scale; 0: the canvas's");
        obs_property_t* height = obs_properties_add_int(props, "height", "Height", 0, kMaxSide, 1);
        obs_property_set_long_description(height, "0: the canvas's");
        obs_properties_add_bool(props, "control", "Live control (HTTP on 127.0.0.1)");
        obs_properties_add_int(props, "port", "Control port (0: any free one)", 0, 65535, 1);
        obs_properties_add_button(props, "restart", "Restart scene", &CLumetsSource::OnRestart);
        if (const std::string page = m_engine.ControlPageUrl(); !page.empty()) {
            obs_property_t* p = obs_properties_add_text(
                props, "control_page", ("Control page: " + page).c_str(), OBS_TEXT_INFO);
            obs_property_text_set_info_type(p, OBS_TEXT_INFO_NORMAL);
        }
        if (const std::string error = Error(); !error.empty()) {
            obs_property_t* p =
                obs_properties_add_text(props, "error", error.c_str(), OBS_TEXT_INFO);
            obs_property_text_set_info_type(p, OBS_TEXT_INFO_ERROR);
        }
        return props;
    }

    // Once a frame on the graphics thread; the scene's clock runs while the
    // source shows and is not paused.
    void Tick(float seconds) {
        m_drawnThisTick = false;
        if (!m_paused && obs_source_showing(m_source) && std::isfinite(seconds) && seconds > 0) {
            m_timeNs += static_cast<uint64_t>(
                std::llround(std::min<double>(seconds, kMaxTickSeconds) * 1e9));
        }
    }

    void Render() {
        const uint32_t w = Width();
        const uint32_t h = Height();
        if (w == 0 || h == 0) {
            return;
        }
        // Shown in several views (preview, program, a projector), the scene
        // is drawn once a frame and the picture reused.
        if (!m_drawnThisTick || m_redraw.exchange(false)) {
            m_drawnThisTick = true;
            DrawScene(w, h);
        }
        gs_texture_t* texture = m_picture ? gs_texrender_get_texture(m_picture.get()) : nullptr;
        if (texture == nullptr) {
            return;
        }
        const bool srgb = gs_framebuffer_srgb_enabled();
        gs_enable_framebuffer_srgb(false);
        gs_blend_state_push();
        gs_blend_function(GS_BLEND_ONE, GS_BLEND_INVSRCALPHA);  // premultiplied
        gs_effect_t* effect = obs_get_base_effect(OBS_EFFECT_DEFAULT);
        gs_effect_set_texture(gs_effect_get_param_by_name(effect, "image"), texture);
        // GL rows run bottom-up; the studio's textures top-down.
        while (gs_effect_loop(effect, "Draw")) {
            gs_draw_sprite(texture, GS_FLIP_V, w, h);
        }
        gs_blend_state_pop();
        gs_enable_framebuffer_srgb(srgb);
    }

    uint32_t Width() const { return m_width != 0 ? m_width.load() : Canvas().base_width; }
    uint32_t Height() const { return m_height != 0 ? m_height.load() : Canvas().base_height; }

    void Restart() {
        m_engine.Restart();
        m_redraw = true;
    }
    void Pause(bool pause) { m_paused = pause; }
    void Seek(int64_t ms) {
        m_timeNs = static_cast<uint64_t>(std::max<int64_t>(ms, 0)) * 1000000;
        m_redraw = true;
    }
    int64_t TimeMs() const { return static_cast<int64_t>(m_timeNs / 1000000); }
    int64_t DurationMs() const { return m_engine.DurationMs(); }
    obs_media_state State() const {
        if (!Error().empty()) {
            return OBS_MEDIA_STATE_ERROR;
        }
        if (DurationMs() == 0) {
            return OBS_MEDIA_STATE_NONE;
        }
        return m_paused ? OBS_MEDIA_STATE_PAUSED : OBS_MEDIA_STATE_PLAYING;
    }

  private:
    static obs_video_info Canvas() {
        obs_video_info info{};
        obs_get_video_info(&info);
        return info;
    }

    static bool OnRestart(obs_properties_t*, obs_property_t*, void* data) {
        Guarded("restart", [&] { static_cast<CLumetsSource*>(data)->Restart(); });
        return false;  // the properties stay as they are
    }

    std::string Error() const {
        const std::lock_guard<std::mutex> lock(m_errorLock);
        return m_error;
    }

    void SetError(const std::string& error) {
        if (!error.empty()) {
            blog(LOG_WARNING, "%s %s: %s", kLog, obs_source_get_name(m_source), error.c_str());
        }
        const std::lock_guard<std::mutex> lock(m_errorLock);
        m_error = error;
    }

    void DrawScene(uint32_t w, uint32_t h) {
        if (!m_picture) {
            m_picture.reset(gs_texrender_create(GS_RGBA_UNORM, GS_ZS_NONE));
        }
        gs_texrender_reset(m_picture.get());
        if (!gs_texrender_begin(m_picture.get(), w, h)) {
            return;
        }
        vec4 transparent{};
        gs_clear(GS_CLEAR_COLOR, &transparent, 0.0f, 0);
        const int32_t width = static_cast<int32_t>(w);
        const int32_t height = static_cast<int32_t>(h);
        // The control page's picture is the frame before, read back only
        // while the page shows it.
        const bool preview = m_engine.PreviewWanted();
        if (preview && (!m_stage || gs_stagesurface_get_width(m_stage.get()) != w ||
                        gs_stagesurface_get_height(m_stage.get()) != h)) {
            m_stage.reset(gs_stagesurface_create(w, h, GS_RGBA_UNORM));
            m_staged = false;
        }
        uint8_t* pixels = nullptr;
        uint32_t lineSize = 0;
        const bool mapped =
            preview && m_staged && gs_stagesurface_map(m_stage.get(), &pixels, &lineSize);
        lumets_frame shown{pixels,
                           width,
                           height,
                           static_cast<int64_t>(lineSize),
                           LUMETS_FORMAT_RGBA,
                           LUMETS_FRAME_BOTTOM_UP};
        const FrameReport report = m_engine.FrameOnGpu(static_cast<uint64_t>(TimeMs()), width,
                                                       height, false, mapped ? &shown : nullptr);
        if (mapped) {
            gs_stagesurface_unmap(m_stage.get());
        }
        gs_texrender_end(m_picture.get());
        if (preview && m_stage) {
            gs_stage_texture(m_stage.get(), gs_texrender_get_texture(m_picture.get()));
            m_staged = true;
        }
        if (!report.warning.empty()) {
            SetError(report.warning);
        }
    }

    obs_source_t* m_source;
    COverlayEngine m_engine;
    std::atomic<uint32_t> m_width{0};  // 0: the canvas's
    std::atomic<uint32_t> m_height{0};
    std::atomic<uint64_t> m_timeNs{0};  // the scene's time: shown, unpaused video time
    std::atomic<bool> m_paused{false};
    std::atomic<bool> m_redraw{false};  // a seek, a restart, new settings
    mutable std::mutex m_errorLock;
    std::string m_error;
    // The graphics thread's own.
    bool m_drawnThisTick = false;
    TexRender m_picture;
    StageSurface m_stage;
    bool m_staged = false;
};

CLumetsSource* Of(void* data) {
    return static_cast<CLumetsSource*>(data);
}

obs_source_info MakeInfo() {
    obs_source_info info{};
    info.id = "lumets_scene";
    info.type = OBS_SOURCE_TYPE_INPUT;
    info.output_flags = OBS_SOURCE_VIDEO | OBS_SOURCE_CUSTOM_DRAW | OBS_SOURCE_CONTROLLABLE_MEDIA;
    info.icon_type = OBS_ICON_TYPE_TEXT;
    info.get_name = [](void*) { return "Lumets scene"; };
    info.create = [](obs_data_t* settings, obs_source_t* source) -> void* {
        return Guarded("create", [&]() -> void* {
            auto self = std::make_unique<CLumetsSource>(source);
            self->Update(settings);
            return self.release();
        });
    };
    info.destroy = [](void* data) { Guarded("destroy", [&] { delete Of(data); }); };
    info.update = [](void* data, obs_data_t* settings) {
        Guarded("update", [&] { Of(data)->Update(settings); });
    };
    info.get_defaults = [](obs_data_t* settings) {
        obs_data_set_default_string(settings, "scene_file", "");
        obs_data_set_default_int(settings, "width", 0);
        obs_data_set_default_int(settings, "height", 0);
        obs_data_set_default_bool(settings, "control", false);
        obs_data_set_default_int(settings, "port", 0);
    };
    info.get_properties = [](void* data) {
        return Guarded("properties", [&] { return Of(data)->Properties(); });
    };
    info.get_width = [](void* data) { return Guarded("width", [&] { return Of(data)->Width(); }); };
    info.get_height = [](void* data) {
        return Guarded("height", [&] { return Of(data)->Height(); });
    };
    info.video_tick = [](void* data, float seconds) {
        Guarded("tick", [&] { Of(data)->Tick(seconds); });
    };
    info.video_render = [](void* data, gs_effect_t*) {
        Guarded("render", [&] { Of(data)->Render(); });
    };
    info.media_play_pause = [](void* data, bool pause) {
        Guarded("pause", [&] { Of(data)->Pause(pause); });
    };
    info.media_restart = [](void* data) { Guarded("restart", [&] { Of(data)->Restart(); }); };
    info.media_set_time = [](void* data, int64_t ms) {
        Guarded("seek", [&] { Of(data)->Seek(ms); });
    };
    info.media_get_time = [](void* data) {
        return Guarded("time", [&] { return Of(data)->TimeMs(); });
    };
    info.media_get_duration = [](void* data) {
        return Guarded("duration", [&] { return Of(data)->DurationMs(); });
    };
    info.media_get_state = [](void* data) {
        // A state that cannot be told is an error, not "no media".
        return Guarded("state", [&] { return std::optional(Of(data)->State()); })
            .value_or(OBS_MEDIA_STATE_ERROR);
    };
    return info;
}

}  // namespace

MODULE_EXPORT const char* obs_module_description(void) {
    return "Lumets scenes: subtitles, banners and a scene movie, played live";
}

bool obs_module_load(void) {
    static const obs_source_info info = MakeInfo();
    obs_register_source(&info);
    return true;
}

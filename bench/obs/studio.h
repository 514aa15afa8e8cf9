// A real libobs in this process, on the X display Xvfb gives (EGL on Mesa),
// with lumets-obs and the studio's image sources loaded: the suite's and the
// benchmark's host.
#pragma once

#include <obs-nix-platform.h>
#include <obs.h>
#include <util/platform.h>

#include <string>
#include <utility>

#include "obs_handles.h"

namespace lumets::test {

using obs::Data;
using obs::Source;
using Props = obs::Properties;

// Waits (bounded) for the studio's video thread, which runs in real time.
inline bool AwaitFrames(uint32_t more) {
    const uint32_t until = obs_get_total_frames() + more;
    for (int i = 0; i < 3000 && obs_get_total_frames() < until; ++i) {
        os_sleep_ms(10);
    }
    return obs_get_total_frames() >= until;
}

inline Source Make(const char* id, const std::string& json) {
    const Data settings(obs_data_create_from_json(json.c_str()));
    return Source(obs_source_create(id, id, settings.get(), nullptr));
}

class CStudio {
  public:
    bool Start(uint32_t width, uint32_t height, uint32_t fps = 30);
    void Stop();
    const std::string& Error() const { return m_error; }

  private:
    void* m_display = nullptr;  // Xlib's Display, whose macros stay out of the includer's way
    std::string m_error;
};

}  // namespace lumets::test

// Xlib last: its macros (None, Bool) would rename the test framework's names.
#include <X11/Xlib.h>

inline bool lumets::test::CStudio::Start(uint32_t width, uint32_t height, uint32_t fps) {
    Display* display = XOpenDisplay(nullptr);
    m_display = display;
    if (display == nullptr) {
        m_error = "no X display: run under xvfb-run";
        return false;
    }
    obs_set_nix_platform(OBS_NIX_PLATFORM_X11_EGL);
    obs_set_nix_platform_display(display);
    if (!obs_startup("en-US", nullptr, nullptr)) {
        m_error = "obs_startup failed";
        return false;
    }
    obs_video_info video{};
    video.graphics_module = "libobs-opengl";
    video.fps_num = fps;
    video.fps_den = 1;
    video.base_width = video.output_width = width;
    video.base_height = video.output_height = height;
    video.output_format = VIDEO_FORMAT_RGBA;
    video.colorspace = VIDEO_CS_SRGB;
    video.range = VIDEO_RANGE_FULL;
    video.gpu_conversion = true;
    video.scale_type = OBS_SCALE_BILINEAR;
    obs_audio_info audio{48000, SPEAKERS_STEREO};
    if (obs_reset_video(&video) != OBS_VIDEO_SUCCESS || !obs_reset_audio(&audio)) {
        m_error = "the studio's video or audio would not start";
        return false;
    }
    for (const auto& [path, data] :
         {std::pair<std::string, std::string>{LUMETS_OBS_PLUGIN, LUMETS_OBS_DATA},
          {LIBOBS_PLUGIN_DIR "/image-source.so", LIBOBS_DATA_DIR "/image-source"}}) {
        obs_module_t* module = nullptr;
        if (obs_open_module(&module, path.c_str(), data.c_str()) != MODULE_SUCCESS ||
            !obs_init_module(module)) {
            m_error = "cannot load " + path;
            return false;
        }
    }
    // A render straight after the reset can read back zeros.
    if (!AwaitFrames(2)) {
        m_error = "the studio's video thread does not run";
        return false;
    }
    return true;
}

inline void lumets::test::CStudio::Stop() {
    obs_shutdown();
    if (m_display != nullptr) {
        XCloseDisplay(static_cast<Display*>(m_display));
    }
}

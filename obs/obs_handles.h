// Owners for the studio library's handles the source keeps. The graphics
// objects go only inside obs_enter_graphics (their owner's caller sees to it).
#pragma once

#include <obs-module.h>

#include <memory>

namespace lumets::obs {

template <typename T, void (*Release)(T*)>
struct Releaser {
    void operator()(T* handle) const { Release(handle); }
};

using Data = std::unique_ptr<obs_data_t, Releaser<obs_data_t, obs_data_release>>;
using TexRender = std::unique_ptr<gs_texrender_t, Releaser<gs_texrender_t, gs_texrender_destroy>>;
using StageSurface =
    std::unique_ptr<gs_stagesurf_t, Releaser<gs_stagesurf_t, gs_stagesurface_destroy>>;

// The graphics context, entered for a scope on a thread other than OBS's
// graphics thread (the one the interface calls update and destroy on).
class CGraphics {
  public:
    CGraphics() { obs_enter_graphics(); }
    ~CGraphics() { obs_leave_graphics(); }
    CGraphics(const CGraphics&) = delete;
    CGraphics& operator=(const CGraphics&) = delete;
};

}  // namespace lumets::obs

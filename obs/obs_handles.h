// Owners for the studio library's handles the source, its suite and its
// benchmark keep. The graphics
// objects go only inside obs_enter_graphics (their owner's caller sees to it).
#pragma once

#include <obs-module.h>

#include "lumets_platform/c_handle.h"

namespace lumets::obs {

using Data = CHandle<obs_data_t, obs_data_release>;
using Source = CHandle<obs_source_t, obs_source_release>;
using Properties = CHandle<obs_properties_t, obs_properties_destroy>;
using TexRender = CHandle<gs_texrender_t, gs_texrender_destroy>;
using StageSurface = CHandle<gs_stagesurf_t, gs_stagesurface_destroy>;
using Texture = CHandle<gs_texture_t, gs_texture_destroy>;

// The graphics context, entered for a scope: on the interface thread (create,
// update, destroy) it waits for OBS's graphics thread; on a thread that holds
// it already it nests.
class CGraphics {
  public:
    CGraphics() { obs_enter_graphics(); }
    ~CGraphics() { obs_leave_graphics(); }
    CGraphics(const CGraphics&) = delete;
    CGraphics& operator=(const CGraphics&) = delete;
};

}  // namespace lumets::obs

// The host's GPU processor library: a combiner that draws textures, one
// textured quad per call, into the framebuffer current on the calling thread,
// with straight-alpha "over" blending.
#pragma once

#include <cstdint>

#include "lumets/export.h"
#include "lumets/host/gl_objects.h"
#include "lumets/win_types.h"

// The order of the virtual functions is the host's interface layout; never
// reorder them. Results of the drawing calls are informational only.
class LUMETS_HOST_API IGPUCombiner {
  public:
    // 1st: compiles the program and makes the vertex objects. True on success.
    virtual bool Init() = 0;
    // 2nd: frees the GL objects made by Init (also done when destroyed).
    virtual void Release() = 0;
    // 3rd: a factor applied to every source alpha, 0..1 (default 1).
    virtual void SetOpacity(float opacity) = 0;
    // 4th: the opacity last set.
    virtual float GetOpacity() const = 0;
    // 5th: clears the current framebuffer to a straight-alpha colour 0xAARRGGBB.
    virtual void Clear(uint32_t argb) = 0;
    // 6th: number of textures drawn since Init.
    virtual uint32_t GetDrawCount() const = 0;
    // 7th: draws the texture with the destination and source set before.
    virtual bool DrawTexture(GLuint texture, int32_t mode) = 0;
    // 8th: the destination and source rectangles of the next draw, in that order.
    virtual void GetRects(RECT* destination, RECT* source) const = 0;
    // 9th: where the next texture lands: rect in top-down target units of a
    // target targetWidth x targetHeight units mapped onto the viewport. Flag 1
    // draws the whole texture there, ignoring any earlier source.
    virtual bool SetDestination(const RECT* rect, int32_t targetWidth, int32_t targetHeight,
                                int32_t flag) = 0;
    // 10th: which part of the next texture is drawn: rect in top-down pixels of
    // a texWidth x texHeight texture whose rows are stored bottom-up.
    virtual bool SetSource(const RECT* rect, int32_t texWidth, int32_t texHeight,
                           int32_t reserved) = 0;

  protected:
    virtual ~IGPUCombiner() = default;
    friend class CProcessorFactory;
};

class LUMETS_HOST_API CProcessorFactory {
  public:
    // Null on failure.
    static IGPUCombiner* CreateCombiner();
    // Null is ignored.
    static void DestroyCombiner(IGPUCombiner* combiner);
};

namespace lumets::host {

// Test hook: replace the combiner factory (for a recording combiner). Null
// restores the real one.
using CombinerFactory = IGPUCombiner* (*)();
using CombinerDeleter = void (*)(IGPUCombiner*);
LUMETS_HOST_API void SetCombinerFactory(CombinerFactory create, CombinerDeleter destroy);

}  // namespace lumets::host

// CTextRenderer: a UTF-16 text and a TextStyle in, a bottom-up 32-bit
// B, G, R, A picture (straight alpha) out, exactly as large as the text needs;
// then copied out or blended into frames.
//
// Render is never called from two threads at once on one renderer; the
// copy and blend operations may run on other threads meanwhile: they and the
// painting step hold the renderer's lock, so no frame sees a half-drawn text.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "lumets/text_style.h"
#include "lumets/win_types.h"
#include "lumets_common/picture.h"
#include "lumets_common/scaled_composite.h"
#include "lumets_platform/lock.h"

namespace lumets {

class CTextRenderer {
  public:
    // The longest text read from a host block, in UTF-16 units.
    static constexpr size_t kMaxTextUnits = 65536;

    CTextRenderer();
    CTextRenderer(const CTextRenderer&) = delete;
    CTextRenderer& operator=(const CTextRenderer&) = delete;

    // A null text leaves everything as it was. The text is read up to its NUL
    // or kMaxTextUnits units, whichever comes first.
    void Render(const char16_t* text, const TextStyle* style);
    // Without the lock: width and height of the last picture.
    SIZE GetSize() const;
    // Copies min(size, capacity) bytes of the picture.
    void CopyBuffer(void* dst, uint32_t size);
    // BlendAt of the picture into a 24- or 32-bit bottom-up frame; pos counts
    // memory rows, as BlendAt reads it.
    void BlendInto(const PictureView& frame, POINT pos);
    // Scales the picture by scale and blends it into a 24-bit bottom-up frame
    // with its top-left at pos, inside clip; pos and clip are top-down
    // coordinates before scaling.
    void BlendScaledIntoFrame(const PictureView& frame, const RECT& clip, POINT pos, float scale);

    // The normalised text of the last render.
    const std::u16string& Text() const { return m_text; }
    // Scales done so far: one per scaled blend, unless it reuses the last
    // scaled picture (same picture, scale and part); and the scaling contexts
    // made for them, one per new pair of sizes.
    uint32_t ScaleCount() const { return m_scaleCount; }
    uint32_t ContextCount() const { return m_scaledReuse.scaler.ContextsMade(); }

  private:
    void Draw();

    std::u16string m_text;
    TextStyle m_style;
    CLock m_lock;
    PixelBuffer m_textBuffer;
    PixelBuffer m_scaledBuffer;
    uint32_t m_scaleCount = 0;
    // The picture's version, new with each render, and what the scaled
    // buffer was made from: a text that only moves is scaled once.
    uint64_t m_version = 0;
    ScaledReuse m_scaledReuse;
    // Mirrors of the picture's size for GetSize, which takes no lock.
    std::atomic<int32_t> m_width{0};
    std::atomic<int32_t> m_height{0};
};

}  // namespace lumets

// Pictures: the pixel conventions, the non-owning view every pixel operation
// takes, and PixelBuffer, the grow-only block that owns a picture's pixels.
//
// Conventions: 24-bit pictures are B, G, R; 32-bit pictures B, G, R, A with
// straight alpha. Rows are stored bottom-up: row 0 in memory is the bottom row
// of the picture. The library's own pictures pad their rows to 4 bytes
// (RowStride); a view may name any stride at least as wide as a row.
//
// A host's frame may lie otherwise (FrameView): its colours in R, G, B order,
// 32-bit with a fourth byte that is the host's and never written, rows
// top-down. Such views are only ever drawn into; the row indices of every
// operation still count memory rows of the bottom-up picture, so a top-down
// frame's row 0 is its last row in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <type_traits>

namespace lumets {

// ((bitsPerPixel * width + 31) & ~31) / 8 in unsigned 32-bit arithmetic.
uint32_t RowStride(uint32_t width, uint32_t bitsPerPixel);

// A picture's pixels and geometry, borrowed: whoever makes the view keeps the
// pixels alive and guarantees strideBytes * height bytes at data. Views are
// passed by value or const reference; a mutable view converts to a const one.
// How a view's pixels lie. Native is the conventions above; the others are
// hosts' frames: Rgb is 24-bit R, G, B; Bgrx and Rgbx are 32-bit with the
// fourth byte left as the host has it.
enum class PixelLayout : uint8_t { Native, Rgb, Bgrx, Rgbx };

template <typename Byte>
struct BasicPictureView {
    Byte* data = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t bitsPerPixel = 0;
    size_t strideBytes = 0;  // from one memory row to the next
    PixelLayout layout = PixelLayout::Native;
    // Rows lie top-down from data: the bottom row is the last in memory.
    bool topDown = false;

    template <typename Other>
    requires(std::is_const_v<Other> && !std::is_const_v<Byte>) operator BasicPictureView<Other>()
        const {
        return {data, width, height, bitsPerPixel, strideBytes, layout, topDown};
    }
};
using PictureView = BasicPictureView<uint8_t>;

// A view that frame operations draw into: the library's 24-bit frame or a
// host's frame of another layout (a 32-bit picture of the library's own is not).
inline bool IsFrameLayout(const BasicPictureView<uint8_t>& view) {
    return view.bitsPerPixel == 24
               ? view.layout == PixelLayout::Native || view.layout == PixelLayout::Rgb
               : view.bitsPerPixel == 32 &&
                     (view.layout == PixelLayout::Bgrx || view.layout == PixelLayout::Rgbx);
}
using ConstPictureView = BasicPictureView<const uint8_t>;

// A view of rows padded to 4 bytes, as the library and its hosts store them.
// Sizes whose rows do not fit 32-bit arithmetic get stride 0, which every
// operation refuses.
template <typename Byte>
BasicPictureView<Byte> PackedPicture(Byte* data, int32_t width, int32_t height,
                                     int32_t bitsPerPixel) {
    size_t stride = 0;
    if (width > 0 && bitsPerPixel > 0) {
        const uint64_t bits = uint64_t{static_cast<uint32_t>(bitsPerPixel)} * uint32_t(width) + 31;
        stride = bits > UINT32_MAX ? 0 : static_cast<size_t>((bits & ~uint64_t{31}) / 8);
    }
    return {data, width, height, bitsPerPixel, stride};
}

// Owned pixels of one picture and its geometry. The block is allocated with
// array new and freed with array delete by the buffer itself; it grows only.
// Moving hands the block over; copying is not allowed.
class PixelBuffer {
  public:
    PixelBuffer() = default;
    PixelBuffer(PixelBuffer&&) noexcept = default;
    PixelBuffer& operator=(PixelBuffer&&) noexcept = default;
    PixelBuffer(const PixelBuffer&) = delete;
    PixelBuffer& operator=(const PixelBuffer&) = delete;

    uint8_t* Data() { return m_data.get(); }
    const uint8_t* Data() const { return m_data.get(); }
    // Bytes allocated at Data(), not the bytes in use.
    size_t Capacity() const { return m_capacity; }

    // Makes the block hold at least RowStride(width, bitsPerPixel) * height
    // bytes. Never shrinks; new bytes are not cleared, and the geometry below
    // is left to the caller. A size beyond 32-bit arithmetic, like a failed
    // allocation, throws std::bad_alloc with the old block freed.
    void Ensure(uint32_t width, uint32_t height, uint32_t bitsPerPixel);
    // The same for a plain byte count.
    void EnsureBytes(size_t bytes);

    // The current picture with 4-byte rows. Empty (null data) when the
    // geometry needs more bytes than the block has, so no view of a buffer
    // reaches past its block.
    PictureView View();
    ConstPictureView View() const;

    int32_t width = 0;
    int32_t height = 0;
    int32_t bitsPerPixel = 32;

  private:
    std::unique_ptr<uint8_t[]> m_data;
    size_t m_capacity = 0;
};

}  // namespace lumets

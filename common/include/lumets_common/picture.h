// Pictures: the pixel conventions, the non-owning view every pixel operation
// takes, and PixelBuffer, the grow-only block that owns a picture's pixels.
//
// Conventions: 24-bit pictures are B, G, R; 32-bit pictures B, G, R, A with
// straight alpha. Rows are stored bottom-up: row 0 in memory is the bottom row
// of the picture. The library's own pictures pad their rows to 4 bytes
// (RowStride); a view may name any stride at least as wide as a row.
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
template <typename Byte>
struct BasicPictureView {
    Byte* data = nullptr;
    int32_t width = 0;
    int32_t height = 0;
    int32_t bitsPerPixel = 0;
    size_t strideBytes = 0;  // from one memory row to the next

    template <typename Other>
    requires(std::is_const_v<Other> && !std::is_const_v<Byte>) operator BasicPictureView<Other>()
        const {
        return {data, width, height, bitsPerPixel, strideBytes};
    }
};
using PictureView = BasicPictureView<uint8_t>;
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

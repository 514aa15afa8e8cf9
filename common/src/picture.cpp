#include "lumets_common/picture.h"

#include <new>

namespace lumets {

uint32_t RowStride(uint32_t width, uint32_t bitsPerPixel) {
    return ((bitsPerPixel * width + 31) & ~31u) / 8;
}

void PixelBuffer::Ensure(uint32_t width, uint32_t height, uint32_t bitsPerPixel) {
    // A size that 32-bit arithmetic cannot hold cannot be allocated either;
    // letting it wrap would hand back a block smaller than the picture.
    const uint64_t bits = uint64_t{bitsPerPixel} * width + 31;
    const uint64_t needed = (bits & ~uint64_t{31}) / 8 * height;
    if (bits > UINT32_MAX || needed > UINT32_MAX) {
        throw std::bad_alloc();
    }
    EnsureBytes(static_cast<size_t>(needed));
}

void PixelBuffer::EnsureBytes(size_t bytes) {
    if (m_capacity >= bytes) {
        return;
    }
    m_data.reset();
    m_capacity = 0;
    m_data.reset(new uint8_t[bytes]);
    m_capacity = bytes;
}

PictureView PixelBuffer::View() {
    PictureView view = PackedPicture(m_data.get(), width, height, bitsPerPixel);
    if (height < 0 || view.strideBytes * static_cast<uint64_t>(height) > m_capacity) {
        view.data = nullptr;
    }
    return view;
}

ConstPictureView PixelBuffer::View() const {
    return const_cast<PixelBuffer*>(this)->View();
}

}  // namespace lumets

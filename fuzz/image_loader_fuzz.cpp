// Fuzz target: arbitrary bytes as an image file. The load must either give a
// consistent picture or leave the target exactly as it was; the sanitizers
// catch every read or write outside a buffer.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "image/image_loader.h"

namespace {

void Check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // The target starts with a 2 x 2 picture so that a failed load can be
    // told from a successful one.
    lumets::PixelBuffer target;
    lumets::EnsureBuffer(&target.data, &target.capacity, 2, 2, 32);
    std::memset(target.data, 0x5A, target.capacity);
    target.width = 2;
    target.height = 2;
    const std::vector<uint8_t> before(target.data, target.data + target.capacity);
    const uint8_t* const block = target.data;

    lumets::LoadImageBytes(target, data, size);

    if (target.data == block && target.width == 2 && target.height == 2 &&
        target.bitsPerPixel == 32 && std::memcmp(target.data, before.data(), before.size()) == 0) {
        delete[] target.data;
        return 0;  // refused, untouched
    }
    Check(target.bitsPerPixel == 24 || target.bitsPerPixel == 32);
    Check(target.width > 0 && target.height > 0);
    Check(target.width <= lumets::kMaxImageSide && target.height <= lumets::kMaxImageSide);
    const uint64_t needed =
        uint64_t{lumets::RowStride(target.width, target.bitsPerPixel)} * target.height;
    Check(needed <= target.capacity);
    // Touch every byte in use, so a short block shows under the sanitizers.
    unsigned sum = 0;
    for (uint64_t i = 0; i < needed; ++i) {
        sum += target.data[i];
    }
    Check(sum != 0xFFFFFFFFu);
    delete[] target.data;
    return 0;
}

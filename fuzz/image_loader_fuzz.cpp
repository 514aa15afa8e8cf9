// Fuzz target: arbitrary bytes as an image file. The load must either give a
// consistent picture or leave the target exactly as it was; the sanitizers
// catch every read or write outside a buffer.

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "image/image_loader.h"
#include "lumets_common/picture_limits.h"

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
    target.Ensure(2, 2, 32);
    std::memset(target.Data(), 0x5A, target.Capacity());
    target.width = 2;
    target.height = 2;
    const std::vector<uint8_t> before(target.Data(), target.Data() + target.Capacity());
    const uint8_t* const block = target.Data();

    lumets::LoadImageBytes(target, data, size);

    if (target.Data() == block && target.width == 2 && target.height == 2 &&
        target.bitsPerPixel == 32 &&
        std::memcmp(target.Data(), before.data(), before.size()) == 0) {
        return 0;  // refused, untouched
    }
    Check(target.bitsPerPixel == 24 || target.bitsPerPixel == 32);
    Check(lumets::PicturePixelsAllowed(target.width, target.height));
    const lumets::ConstPictureView picture = std::as_const(target).View();
    Check(picture.data != nullptr);
    const uint64_t needed = uint64_t{picture.strideBytes} * picture.height;
    // Touch every byte in use, so a short block shows under the sanitizers.
    unsigned sum = 0;
    for (uint64_t i = 0; i < needed; ++i) {
        sum += picture.data[i];
    }
    Check(sum != 0xFFFFFFFFu);
    return 0;
}

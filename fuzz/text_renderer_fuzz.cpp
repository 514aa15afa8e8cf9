// Fuzz target: a style record and a text taken from the bytes, as a host
// passes them. The first 128 bytes are the TextStyle (shorter inputs pad the
// default style), the rest UTF-16 units. The picture must stay inside the size
// limits and its bytes readable; the sanitizers catch every read or write
// outside a buffer.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "lumets_common/picture_limits.h"
#include "text/text_renderer.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TextStyle style;
    const size_t styleBytes = size < sizeof(TextStyle) ? size : sizeof(TextStyle);
    if (styleBytes > 0) {  // an empty input may come as a null pointer
        std::memcpy(static_cast<void*>(&style), data, styleBytes);
    }
    const size_t units =
        std::min((size - styleBytes) / 2, size_t{lumets::CTextRenderer::kMaxTextUnits});
    // As in the host's text block: NUL-terminated, or filling all its units
    // without a terminator. On the heap, so a read past the block shows.
    std::vector<char16_t> text(units < lumets::CTextRenderer::kMaxTextUnits ? units + 1 : units,
                               u'\0');
    if (units > 0) {
        std::memcpy(text.data(), data + styleBytes, units * 2);
    }

    lumets::CTextRenderer renderer;
    renderer.Render(text.data(), &style);
    const SIZE size2 = renderer.GetSize();
    if (size2.cx < 0 || size2.cy < 0 || size2.cx > lumets::kMaxPictureSide ||
        size2.cy > lumets::kMaxPictureSide ||
        int64_t{size2.cx} * size2.cy > lumets::kMaxPicturePixels) {
        std::abort();
    }
    std::vector<uint8_t> pixels(static_cast<size_t>(size2.cx) * size2.cy * 4);
    renderer.CopyBuffer(pixels.data(), static_cast<uint32_t>(pixels.size()));
    return 0;
}

#include "demo.h"

#include <algorithm>
#include <cmath>

#include "image/pixel_ops.h"
#include "text/text_renderer.h"

namespace lumets::tool {

namespace {

struct Picture {
    int32_t width = 0;
    int32_t height = 0;
    int32_t bitsPerPixel = 32;
    std::vector<uint8_t> pixels;

    Picture(int32_t w, int32_t h, int32_t bpp)
        : width(w),
          height(h),
          bitsPerPixel(bpp),
          pixels(static_cast<size_t>(RowStride(w, bpp)) * h, 0) {}

    PictureView View() { return PackedPicture(pixels.data(), width, height, bitsPerPixel); }
    ConstPictureView View() const {
        return PackedPicture(pixels.data(), width, height, bitsPerPixel);
    }

    // (x, y) with y counted from the top of the picture.
    uint8_t* At(int32_t x, int32_t y) {
        const size_t row = static_cast<size_t>(height - 1 - y);
        return pixels.data() + row * RowStride(width, bitsPerPixel) + x * (bitsPerPixel / 8);
    }
};

uint8_t ToByte(double v) {
    return static_cast<uint8_t>(std::clamp(v, 0.0, 255.0) + 0.5);
}

// Coverage of a pixel by a rounded rectangle, from its signed distance.
double RoundedRectCoverage(double x, double y, double w, double h, double radius) {
    const double qx = std::abs(x - w / 2) - (w / 2 - radius);
    const double qy = std::abs(y - h / 2) - (h / 2 - radius);
    const double outside = std::hypot(std::max(qx, 0.0), std::max(qy, 0.0));
    const double distance = outside + std::min(std::max(qx, qy), 0.0) - radius;
    return std::clamp(0.5 - distance, 0.0, 1.0);
}

Picture Background() {
    Picture frame(kDemoWidth, kDemoHeight, 24);
    for (int32_t y = 0; y < frame.height; ++y) {
        const double v = static_cast<double>(y) / frame.height;
        for (int32_t x = 0; x < frame.width; ++x) {
            const double u = static_cast<double>(x) / frame.width;
            uint8_t* p = frame.At(x, y);
            p[0] = ToByte(150 + 80 * u - 60 * v);  // B
            p[1] = ToByte(70 + 40 * v);            // G
            p[2] = ToByte(40 + 120 * u * v);       // R
        }
    }
    return frame;
}

Picture Plate(int32_t w, int32_t h, uint8_t alpha) {
    Picture plate(w, h, 32);
    for (int32_t y = 0; y < h; ++y) {
        for (int32_t x = 0; x < w; ++x) {
            const double c = RoundedRectCoverage(x + 0.5, y + 0.5, w, h, h / 3.0);
            uint8_t* p = plate.At(x, y);
            p[0] = 30;
            p[1] = 24;
            p[2] = 20;
            p[3] = ToByte(alpha * c);
        }
    }
    return plate;
}

Picture Disc(int32_t size, uint8_t b, uint8_t g, uint8_t r) {
    Picture disc(size, size, 32);
    const double radius = size / 2.0;
    for (int32_t y = 0; y < size; ++y) {
        for (int32_t x = 0; x < size; ++x) {
            const double d = std::hypot(x + 0.5 - radius, y + 0.5 - radius) / radius;
            uint8_t* p = disc.At(x, y);
            p[0] = b;
            p[1] = g;
            p[2] = r;
            p[3] = ToByte(255 * std::clamp(1.0 - d * d, 0.0, 1.0) * 1.2);
        }
    }
    return disc;
}

Picture Checker(int32_t size, int32_t cell) {
    Picture checker(size, size, 32);
    for (int32_t y = 0; y < size; ++y) {
        for (int32_t x = 0; x < size; ++x) {
            const bool light = ((x / cell) + (y / cell)) % 2 == 0;
            uint8_t* p = checker.At(x, y);
            p[0] = light ? 235 : 60;
            p[1] = light ? 235 : 60;
            p[2] = light ? 235 : 60;
            p[3] = 0;  // a copy ignores alpha
        }
    }
    return checker;
}

// BlendAt takes the position in memory rows; convert from a top-down y.
void BlendTopDown(Picture& frame, const Picture& src, int32_t x, int32_t yTop) {
    const POINT pos{x, frame.height - yTop - src.height};
    BlendAt(frame.View(), pos, src.View());
}

}  // namespace

std::vector<uint8_t> RenderDemoFrame() {
    Picture frame = Background();

    // Glowing discs, two of them cut by the frame's edges.
    BlendTopDown(frame, Disc(260, 40, 180, 255), -60, -50);
    BlendTopDown(frame, Disc(200, 255, 120, 60), 900, 90);
    BlendTopDown(frame, Disc(140, 120, 255, 140), 1180, 300);
    BlendTopDown(frame, Disc(90, 255, 255, 255), 420, 160);

    // A checker tile copied verbatim into the top-right corner.
    const Picture checker = Checker(160, 20);
    const RECT dstRect{kDemoWidth - 180, kDemoHeight - 180, kDemoWidth - 20, kDemoHeight - 20};
    const RECT srcRect{0, 0, checker.width, checker.height};
    CopyRectPixels(frame.View(), dstRect, checker.View(), srcRect);

    // A subtitle: a translucent rounded plate with styled text on it.
    const Picture plate = Plate(960, 110, 170);
    BlendTopDown(frame, plate, (kDemoWidth - plate.width) / 2, kDemoHeight - 160);
    TextStyle style;
    style.fontSize = 30;
    style.bold = 1;
    style.fillColor1 = 0xFFFFFF;
    style.fillColor2 = 0xFFC040;
    style.fillAngle = 90.0f;
    style.outline = 1;
    style.outlineWidth = 3.0f;
    style.outlineColor = 0x301000;
    style.horizontalAlign = 1;
    CTextRenderer subtitle;
    subtitle.Render(u"Lumets overlays · 直播字幕 ✨", &style);
    const SIZE size = subtitle.GetSize();
    const RECT clip{0, 0, kDemoWidth, kDemoHeight};
    const POINT pos{(kDemoWidth - size.cx) / 2, kDemoHeight - 105 - size.cy / 2};
    subtitle.BlendScaledInto24(frame.View(), clip, pos, 1.0f);

    // The same text scaled down in the top-left corner, as a smaller output would show it.
    const POINT small{40 * 2, 40 * 2};
    subtitle.BlendScaledInto24(frame.View(), clip, small, 0.5f);

    return std::move(frame.pixels);
}

}  // namespace lumets::tool

// Text rendering: the renderer against a bare Pango/Cairo render of the same
// layout (the floor). The scaled composite is in bench_scale.
#include <benchmark/benchmark.h>
#include <pango/pangocairo.h>

#include <cmath>
#include <string>
#include <vector>

#include "bench_fixtures.h"
#include "text/cairo_handles.h"
#include "text/font_system.h"
#include "text/pango_handles.h"
#include "text/text_renderer.h"

namespace {

using lumets::bench::kMixedLine;
constexpr auto BenchStyle = lumets::bench::GradientOutlineStyle;

void BM_Render(benchmark::State& state) {
    lumets::CTextRenderer renderer;
    const TextStyle style = BenchStyle();
    for (auto _ : state) {
        renderer.Render(kMixedLine, &style);
        benchmark::DoNotOptimize(renderer.GetSize());
    }
}
BENCHMARK(BM_Render)->Unit(benchmark::kMicrosecond);

// A hostile outlined text: 1,024 lines of 63 W.
void BM_RenderManyOutlinedLines(benchmark::State& state) {
    std::u16string text;
    for (int i = 0; i < 1024; ++i) {
        text += std::u16string(63, u'W') + u'\n';
    }
    lumets::CTextRenderer renderer;
    TextStyle style;
    style.outline = 1;
    style.outlineWidth = 3.0f;
    for (auto _ : state) {
        renderer.Render(text.c_str(), &style);
        benchmark::DoNotOptimize(renderer.GetSize());
    }
}
BENCHMARK(BM_RenderManyOutlinedLines)->Unit(benchmark::kMillisecond);

// The same text, font, gradient and outline drawn with Pango and Cairo alone
// into a surface of the renderer's size: the least any renderer must do.
void BM_BarePangoCairoFloor(benchmark::State& state) {
    lumets::CTextRenderer renderer;
    const TextStyle style = BenchStyle();
    renderer.Render(kMixedLine, &style);
    const SIZE size = renderer.GetSize();
    std::vector<uint8_t> pixels(static_cast<size_t>(size.cx) * size.cy * 4);
    const char* utf8 = "Live 直播 subtitle 字幕 test 测试 line 行 ok";
    auto& fonts = lumets::FontSystem::Get();
    for (auto _ : state) {
        auto lock = fonts.Lock();
        const lumets::CairoSurfacePtr surface(cairo_image_surface_create_for_data(
            pixels.data(), CAIRO_FORMAT_ARGB32, size.cx, size.cy, size.cx * 4));
        const lumets::CairoPtr cairo(cairo_create(surface.get()));
        cairo_t* cr = cairo.get();
        cairo_set_operator(cr, CAIRO_OPERATOR_CLEAR);
        cairo_paint(cr);
        cairo_set_operator(cr, CAIRO_OPERATOR_OVER);
        const lumets::GObjectPtr<PangoContext> context(
            pango_font_map_create_context(fonts.FontMap()));
        const lumets::GObjectPtr<PangoLayout> layout(pango_layout_new(context.get()));
        const lumets::PangoFontDescriptionPtr description(
            pango_font_description_from_string("WenQuanYi Micro Hei 32px"));
        pango_layout_set_font_description(layout.get(), description.get());
        pango_layout_set_text(layout.get(), utf8, -1);
        const lumets::CairoPatternPtr gradient(cairo_pattern_create_linear(0, 0, size.cx, size.cy));
        cairo_pattern_add_color_stop_rgb(gradient.get(), 0, 1, 0.25, 0);
        cairo_pattern_add_color_stop_rgb(gradient.get(), 1, 0.125, 0.25, 1);
        cairo_move_to(cr, 1, 1);
        pango_cairo_layout_path(cr, layout.get());
        cairo_set_source_rgb(cr, 0, 0, 0);
        cairo_set_line_width(cr, 2);
        cairo_set_line_join(cr, CAIRO_LINE_JOIN_ROUND);
        cairo_stroke_preserve(cr);
        cairo_set_source(cr, gradient.get());
        cairo_fill(cr);
        benchmark::DoNotOptimize(pixels.data());
    }
}
BENCHMARK(BM_BarePangoCairoFloor)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

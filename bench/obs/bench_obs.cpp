// What a source costs the studio's graphics thread a frame at 1080p: a Lumets
// scene (moved on a frame and drawn with OpenGL into its texture, then onto
// the target) against the studio's own image source showing a 1080p picture.
// Each frame is drawn into a 1080p texture render and waited for (one pixel
// read back), as the studio's frame is. Run it with tests/obs/with_xvfb.sh.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <string>

#include "obs/studio.h"

namespace {

using lumets::test::Make;
using lumets::test::Source;
constexpr uint32_t kW = 1920;
constexpr uint32_t kH = 1080;

void DrawFrames(benchmark::State& state, obs_source_t* source, bool scene) {
    const lumets::obs::CGraphics graphics;
    const lumets::obs::TexRender target(gs_texrender_create(GS_RGBA, GS_ZS_NONE));
    const lumets::obs::Texture pixel(
        gs_texture_create(1, 1, GS_RGBA, 1, nullptr, GS_RENDER_TARGET));
    const lumets::obs::StageSurface stage(gs_stagesurface_create(1, 1, GS_RGBA));
    int64_t ms = 0;
    for (auto _ : state) {
        if (scene) {
            obs_source_media_set_time(source, ms += 16);
        }
        gs_texrender_reset(target.get());
        if (gs_texrender_begin(target.get(), kW, kH)) {
            vec4 black{};
            gs_clear(GS_CLEAR_COLOR, &black, 0.f, 0);
            gs_ortho(0.f, float{kW}, 0.f, float{kH}, -100.f, 100.f);
            obs_source_video_render(source);
            gs_texrender_end(target.get());
        }
        gs_copy_texture_region(pixel.get(), 0, 0, gs_texrender_get_texture(target.get()), kW / 2,
                               kH - 40, 1, 1);
        gs_stage_texture(stage.get(), pixel.get());
        uint8_t* data = nullptr;
        uint32_t line = 0;
        if (gs_stagesurface_map(stage.get(), &data, &line)) {
            benchmark::DoNotOptimize(data[0]);
            gs_stagesurface_unmap(stage.get());
        }
    }
}

void BM_LumetsScene(benchmark::State& state, const char* file) {
    const Source source =
        Make("lumets_scene", std::string(R"({"scene_file": ")") +
                                 LUMETS_SOURCE_DIR "/docs/examples/" + file + R"("})");
    obs_source_media_play_pause(source.get(), true);
    DrawFrames(state, source.get(), true);
}

void BM_ImageSource(benchmark::State& state) {
    const std::string picture = "/tmp/lumets-bench-obs.png";
    if (std::system(
            ("ffmpeg -v error -f lavfi -i testsrc2=size=1920x1080 -frames:v 1 -y " + picture)
                .c_str()) != 0) {
        state.SkipWithError("ffmpeg cannot make the picture");
        return;
    }
    const Source source = Make("image_source", R"({"file": ")" + picture + R"("})");
    obs_source_inc_showing(source.get());  // it loads its picture when shown
    lumets::test::AwaitFrames(2);
    DrawFrames(state, source.get(), false);
    obs_source_dec_showing(source.get());
}

BENCHMARK_CAPTURE(BM_LumetsScene, ticker, "ticker.json")->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_LumetsScene, chat, "chat.json")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ImageSource)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    lumets::test::CStudio studio;
    // The studio's own frames, few, hold the graphics context rarely.
    if (!studio.Start(kW, kH, 2)) {
        std::fprintf(stderr, "%s\n", studio.Error().c_str());
        return 1;
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    studio.Stop();
    return 0;
}

// Drawing at scale 1.5 against 1.0, side by side: what a host drawing a
// 1280 x 720 design into a 1920 x 1080 frame pays per frame. Each pair is a
// steady picture drawn again (the scaled copy is kept), except the plate whose
// colour changes every frame (rebuilt and rescaled each time, with a kept
// scaling context) and the movie, played at the host's 60 fps over a 25 fps
// movie (one scale per movie frame). Counters: scales per frame, and heap
// allocations per frame of the drawing thread (the C libraries' included).
//
//   bench_scale --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "alloc_counter.h"
#include "bench_fixtures.h"
#include "lumets/host/flash_player.h"
#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"
#include "subtitle/subtitle_background.h"
#include "text/text_renderer.h"

namespace {

using lumets::PackedPicture;

constexpr int32_t kFrameW = 1920;
constexpr int32_t kFrameH = 1080;

std::vector<uint8_t> HostFrame() {
    return std::vector<uint8_t>(static_cast<size_t>(lumets::RowStride(kFrameW, 24)) * kFrameH, 40);
}

// Per-frame figures over the timed iterations.
void Report(benchmark::State& state, uint64_t allocations, uint32_t scales) {
    const auto frames = static_cast<double>(state.iterations());
    state.counters["allocs_per_frame"] = static_cast<double>(allocations) / frames;
    state.counters["scales_per_frame"] = static_cast<double>(scales) / frames;
}

// 40 characters of mixed CJK and Latin, gradient and outline.
void BM_TextSteady(benchmark::State& state, float scale) {
    lumets::CTextRenderer renderer;
    const TextStyle style = lumets::bench::GradientOutlineStyle();
    renderer.Render(lumets::bench::kMixedLine, &style);
    std::vector<uint8_t> frame = HostFrame();
    const RECT clip{0, 0, kFrameW, kFrameH};
    const auto draw = [&] {
        renderer.BlendScaledIntoFrame(PackedPicture(frame.data(), kFrameW, kFrameH, 24), clip,
                                      POINT{100, 600}, scale);
    };
    draw();  // warm-up: the one scale
    const uint32_t before = renderer.ScaleCount();
    lumets::bench::StartCounting();
    for (auto _ : state) {
        draw();
        benchmark::DoNotOptimize(frame.data());
    }
    Report(state, lumets::bench::StopCounting(), renderer.ScaleCount() - before);
}

// Text 600 x 40, plate 652 x 47.
void BM_Plate(benchmark::State& state, float scale, bool colourChanges) {
    lumets::CSubtitleBackground plate;
    std::vector<uint8_t> frame = HostFrame();
    const RECT text{400, 500, 1000, 540};
    uint32_t colour = 0x3366CC;
    const auto draw = [&] {
        plate.DrawOnFrame(PackedPicture(frame.data(), kFrameW, kFrameH, 24), &text, 40, colour,
                          0.7f, scale);
    };
    draw();
    const uint32_t before = plate.ScaleCount();
    lumets::bench::StartCounting();
    for (auto _ : state) {
        colour ^= colourChanges ? 1 : 0;
        draw();
        benchmark::ClobberMemory();
    }
    Report(state, lumets::bench::StopCounting(), plate.ScaleCount() - before);
}

// A 640 x 360 WebM with alpha at 25 fps; the host draws every 16.7 ms.
void BM_Movie60OverA25fpsMovie(benchmark::State& state, float scale) {
    const lumets::bench::ScratchDir dir;
    const std::string file =
        dir.Ffmpeg("25fps.webm",
                   "-f lavfi -i 'testsrc2=s=640x360:r=25:d=2,format=rgba,colorchannelmixer=aa=0.6' "
                   "-c:v libvpx-vp9 -pix_fmt yuva420p -deadline realtime -cpu-used 8 -b:v 2M");
    lumets::SetTimeMode(lumets::TimeMode::Virtual);
    IFlashPlayer* player = CreateFlashPlayer();
    const std::u16string path(file.begin(), file.end());
    player->Open(path.c_str(), 0, true);
    std::vector<uint8_t> frame = HostFrame();
    const RECT clip{0, 0, kFrameW, kFrameH};
    const POINT pos{200, 300};
    // Warm-up: the buffers and the scaling context are made once.
    player->RenderToFrame(frame.data(), kFrameW, kFrameH, &clip, &pos, scale);
    uint64_t allocations = 0;
    uint64_t hostFrames = 0;
    for (auto _ : state) {
        state.PauseTiming();
        // 1000 / 60 ms, kept exact over three frames.
        lumets::AdvanceBy(hostFrames % 3 == 2 ? 16 : 17);
        ++hostFrames;
        lumets::bench::StartCounting();
        state.ResumeTiming();
        player->RenderToFrame(frame.data(), kFrameW, kFrameH, &clip, &pos, scale);
        benchmark::DoNotOptimize(frame.data());
        state.PauseTiming();
        allocations += lumets::bench::StopCounting();
        state.ResumeTiming();
    }
    Report(state, allocations, 0);
    DeleteFlashPlayer(player);
    lumets::SetTimeMode(lumets::TimeMode::Real);
}

}  // namespace

int main(int argc, char** argv) {
    for (const float scale : {1.0f, 1.5f}) {
        const std::string at = scale == 1.0f ? "/scale:1.0" : "/scale:1.5";
        benchmark::RegisterBenchmark(("BM_TextSteady" + at).c_str(), BM_TextSteady, scale)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("BM_PlateSteady" + at).c_str(), BM_Plate, scale, false)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("BM_PlateColourChanging" + at).c_str(), BM_Plate, scale, true)
            ->Unit(benchmark::kMicrosecond);
        benchmark::RegisterBenchmark(("BM_Movie60OverA25fpsMovie" + at).c_str(),
                                     BM_Movie60OverA25fpsMovie, scale)
            ->Unit(benchmark::kMicrosecond);
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}

// What lumets filter spends per frame on the demo scene, side by side: the
// scene composited straight into the top-down frame it reads (24- and 32-bit),
// the same with the two flip copies into and out of the library's bottom-up
// layout that it used to make, and a plain copy of the frame for scale.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "lumets_common/pixel_ops.h"
#include "scene_file.h"
#include "scene_player.h"

namespace {

using lumets::playback::CScenePlayer;
using lumets::playback::Scene;

const Scene& Demo() {
    static const Scene scene = lumets::playback::LoadScene(
        std::string(LUMETS_SOURCE_DIR) + "/data/demo/scene.json",
        [](const std::string&, lumets::playback::MediaUse) { return std::string(); });
    return scene;
}

// The frame as the filter reads it, and the time moving on a frame a step.
struct Run {
    explicit Run(const benchmark::State& state, int32_t bytes)
        : width(static_cast<int32_t>(state.range(0))),
          height(width * 9 / 16),
          rowBytes(static_cast<size_t>(width) * bytes),
          raw(rowBytes * height, 0x40),
          player(Demo()) {}
    void Step() { player.AdvanceTo(lumets::playback::FrameTimeMs(index++ % 300, 30)); }
    int32_t width;
    int32_t height;
    size_t rowBytes;
    std::vector<uint8_t> raw;
    CScenePlayer player;
    uint64_t index = 0;
};

void Report(benchmark::State& state, const Run& run) {
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * run.raw.size()));
}

void BM_FilterInPlace(benchmark::State& state, int32_t format, int32_t bytes) {
    Run run(state, bytes);
    const lumets_frame frame{
        run.raw.data(), run.width, run.height, static_cast<int64_t>(run.rowBytes), format, 0};
    for (auto _ : state) {
        run.Step();
        run.player.Draw(frame);
        benchmark::ClobberMemory();
    }
    Report(state, run);
}
BENCHMARK_CAPTURE(BM_FilterInPlace, bgr24, LUMETS_FORMAT_BGR24, 3)
    ->Arg(1280)
    ->Arg(1920)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_FilterInPlace, bgra, LUMETS_FORMAT_BGRA, 4)
    ->Arg(1280)
    ->Arg(1920)
    ->Unit(benchmark::kMicrosecond);

// The former path: top-down rows copied into the library's bottom-up padded
// frame, composited there, and copied back.
void BM_FilterWithFlipCopies(benchmark::State& state) {
    Run run(state, 3);
    const size_t stride = lumets::RowStride(static_cast<uint32_t>(run.width), 24);
    std::vector<uint8_t> frame(stride * run.height);
    for (auto _ : state) {
        run.Step();
        for (int32_t y = 0; y < run.height; ++y) {
            std::memcpy(frame.data() + stride * (run.height - 1 - y),
                        run.raw.data() + run.rowBytes * y, run.rowBytes);
        }
        run.player.Draw(lumets::PackedFrame24(frame.data(), run.width, run.height));
        for (int32_t y = 0; y < run.height; ++y) {
            std::memcpy(run.raw.data() + run.rowBytes * y,
                        frame.data() + stride * (run.height - 1 - y), run.rowBytes);
        }
        benchmark::ClobberMemory();
    }
    Report(state, run);
}
BENCHMARK(BM_FilterWithFlipCopies)->Arg(1280)->Arg(1920)->Unit(benchmark::kMicrosecond);

// A plain copy of one frame: the least a filter that touches every byte costs.
void BM_FrameCopy(benchmark::State& state) {
    const size_t bytes = static_cast<size_t>(state.range(0)) * (state.range(0) * 9 / 16) * 3;
    std::vector<uint8_t> from(bytes, 1);
    std::vector<uint8_t> to(bytes);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), bytes);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}
BENCHMARK(BM_FrameCopy)->Arg(1280)->Arg(1920)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

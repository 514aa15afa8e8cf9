// The host libraries per output frame: a subtitle text layer uploaded and drawn
// through the combiner (on whatever OpenGL the machine has; Mesa's software
// rasteriser without a GPU), and a WebM movie with alpha blended into a
// 1080p host frame at two scales.
//
//   bench_host --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>
#include <epoxy/gl.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "lumets/host/flash_player.h"
#include "lumets/host/gl_objects.h"
#include "lumets/host/gpu_combiner.h"
#include "lumets/host/headless_gl.h"
#include "lumets/time_source.h"

namespace {

constexpr int kFrameWidth = 1920;
constexpr int kFrameHeight = 1080;

// Anti-aliased text looks like this to the blender: mostly transparent, solid
// strokes, a fringe of partial alphas.
std::vector<uint8_t> TextLikeLayer(int width, int height) {
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * height * 4);
    uint32_t state = 1;
    for (size_t i = 0; i < pixels.size(); i += 4) {
        state = state * 1664525u + 1013904223u;
        const uint32_t r = state >> 24;
        pixels[i] = 255;
        pixels[i + 1] = 255;
        pixels[i + 2] = 255;
        pixels[i + 3] = static_cast<uint8_t>(r < 160 ? 0 : (r < 220 ? 255 : r));
    }
    return pixels;
}

void BM_TextLayerUploadAndDraw(benchmark::State& state) {
    lumets::host::CHeadlessGl gl;
    if (!gl.OpenDisplay() || !gl.CreateContext() ||
        !gl.CreateFramebuffer(kFrameWidth, kFrameHeight)) {
        state.SkipWithError("no headless OpenGL context");
        return;
    }
    constexpr int kWidth = 1920;
    constexpr int kHeight = 200;
    const std::vector<uint8_t> layer = TextLikeLayer(kWidth, kHeight);
    IGPUCombiner* combiner = CProcessorFactory::CreateCombiner();
    combiner->Init();
    const GLuint texture = CGLObjectFactory::CreateTexture();
    IPBO* pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
    const RECT destination{0, 800, kWidth, 800 + kHeight};
    const RECT source{0, 0, kWidth, kHeight};
    for (auto _ : state) {
        pbo->Resize(kWidth, kHeight);
        if (!pbo->Upload(texture, layer.data(), static_cast<uint32_t>(layer.size()), GL_BGRA)) {
            state.SkipWithError("upload failed");
            break;
        }
        combiner->SetDestination(&destination, kFrameWidth, kFrameHeight, 0);
        combiner->SetSource(&source, kWidth, kHeight, 0);
        combiner->DrawTexture(texture, 1);
        glFinish();  // the work is done when the pixels are, not when queued
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            static_cast<int64_t>(layer.size()));
    CGLObjectFactory::DestroyPBO(pbo);
    glDeleteTextures(1, &texture);
    CProcessorFactory::DestroyCombiner(combiner);
}
BENCHMARK(BM_TextLayerUploadAndDraw)->Unit(benchmark::kMicrosecond);

// A 640 x 360, 30 fps WebM/VP9 movie with partial alpha everywhere, made once.
const std::string& AlphaMovie() {
    static const std::string path = [] {
        const std::string dir = std::filesystem::temp_directory_path().string();
        const std::string file = dir + "/lumets-bench-alpha.webm";
        const std::string command =
            "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "
            "'testsrc2=s=640x360:r=30:d=2,format=rgba,colorchannelmixer=aa=0.6' "
            "-c:v libvpx-vp9 -pix_fmt yuva420p -deadline realtime -cpu-used 8 -b:v 2M '" +
            file + "'";
        return std::system(command.c_str()) == 0 ? file : std::string();
    }();
    return path;
}

// Each iteration shows the next movie frame, so the scale is paid every time
// as it is when the host draws once per movie frame.
void BM_MovieRenderToFrame(benchmark::State& state) {
    const float scale = static_cast<float>(state.range(0)) / 100.f;
    if (AlphaMovie().empty()) {
        state.SkipWithError("ffmpeg could not make the movie");
        return;
    }
    lumets::SetTimeMode(lumets::TimeMode::Virtual);
    IFlashPlayer* player = CreateFlashPlayer();
    const std::u16string path(AlphaMovie().begin(), AlphaMovie().end());
    player->Open(path.c_str(), 0, true);
    if (!player->IsReady()) {
        state.SkipWithError("the movie did not open");
    }
    std::vector<uint8_t> frame(static_cast<size_t>(kFrameWidth) * 3 * kFrameHeight, 90);
    const RECT clip{0, 0, kFrameWidth, kFrameHeight};
    const POINT pos{200, 300};
    for (auto _ : state) {
        state.PauseTiming();
        lumets::AdvanceBy(34);  // one frame of 33.3 ms or a little more
        state.ResumeTiming();
        player->RenderToFrame(frame.data(), kFrameWidth, kFrameHeight, &clip, &pos, scale);
        benchmark::DoNotOptimize(frame.data());
    }
    DeleteFlashPlayer(player);
    lumets::SetTimeMode(lumets::TimeMode::Real);
}
BENCHMARK(BM_MovieRenderToFrame)->Arg(100)->Arg(150)->Unit(benchmark::kMicrosecond);

}  // namespace

BENCHMARK_MAIN();

// Movies of 1080p through the public interfaces, as a host meets them: the
// memory one player takes for a 10 s and a 60 s movie, how long AddSubtitle
// of a subtitle with a movie takes, the worst frame of a 60 fps render thread
// while ten such subtitles are added, and the whole cost of a new movie frame
// (decoding, converting, blending) at scale 1.5 against 1.0.
//
//   bench_movie --benchmark_repetitions=5 --benchmark_report_aggregates_only=true
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lumets/host/flash_player.h"
#include "lumets/lumets.h"

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

// A test pattern of the given length at 1080p and 25 fps, H.264 in MP4, made
// once per length (it compresses to a few MB).
std::string Movie(int seconds) {
    const std::string file = std::filesystem::temp_directory_path().string() +
                             "/lumets-bench-1080p-" + std::to_string(seconds) + "s.mp4";
    if (!std::filesystem::exists(file)) {
        const std::string command =
            "ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "
            "testsrc2=s=1920x1080:r=25:d=" +
            std::to_string(seconds) + " -c:v libx264 -preset ultrafast -pix_fmt yuv420p '" + file +
            ".part.mp4' && mv '" + file + ".part.mp4' '" + file + "'";
        if (std::system(command.c_str()) != 0) {
            return {};
        }
    }
    return file;
}

// The kernel's count of this process's resident memory, in KiB: now, or the
// most since the last ResetPeak.
long StatusKiB(const char* field) {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(field, 0) == 0) {
            return std::strtol(line.c_str() + std::strlen(field), nullptr, 10);
        }
    }
    return 0;
}
void ResetPeak() {
    std::ofstream("/proc/self/clear_refs") << "5";
}

std::u16string U16(const std::string& text) {
    return std::u16string(text.begin(), text.end());
}

// One player plays the movie's first five seconds in virtual time, drawn at
// 1.0 into a 1080p frame every 40 ms; the counter is the most memory the
// process held above what it held before the player was made.
void BM_PlayerPeakMemory(benchmark::State& state) {
    const std::string movie = Movie(static_cast<int>(state.range(0)));
    if (movie.empty()) {
        state.SkipWithError("ffmpeg could not make the movie");
        return;
    }
    std::vector<uint8_t> frame(static_cast<size_t>(kWidth) * 3 * kHeight, 90);
    const RECT clip{0, 0, kWidth, kHeight};
    const POINT pos{0, 0};
    double peakMiB = 0;
    for (auto _ : state) {
        lumets::SetTimeMode(lumets::TimeMode::Virtual);
        ResetPeak();
        const long before = StatusKiB("VmRSS:");
        IFlashPlayer* player = CreateFlashPlayer();
        player->Open(U16(movie).c_str(), 0, true);
        for (int step = 0; step < 125; ++step) {
            lumets::AdvanceBy(40);
            player->RenderToFrame(frame.data(), kWidth, kHeight, &clip, &pos, 1.0f);
        }
        peakMiB = static_cast<double>(StatusKiB("VmHWM:") - before) / 1024.0;
        DeleteFlashPlayer(player);
        lumets::SetTimeMode(lumets::TimeMode::Real);
    }
    state.counters["peak_MiB"] = peakMiB;
}
BENCHMARK(BM_PlayerPeakMemory)->Arg(10)->Arg(60)->Iterations(1)->Unit(benchmark::kMillisecond);

struct MovieSubtitle {
    explicit MovieSubtitle(const std::string& movie) {
        std::memset(static_cast<void*>(&swf), 0, sizeof swf);
        const std::u16string path = U16(movie);
        std::copy(path.begin(), path.end(), swf.szPath);
        swf.rcClip = RECT{0, 0, kWidth, kHeight};
        item = ItemDescription{&swf, nullptr, nullptr, 0, {}};
    }
    SwfPart swf;
    ItemDescription item;
};

// AddSubtitle alone, timed by hand; the removal is not counted.
void BM_AddSubtitleWithMovie(benchmark::State& state) {
    const std::string movie = Movie(10);
    if (movie.empty()) {
        state.SkipWithError("ffmpeg could not make the movie");
        return;
    }
    MovieSubtitle subtitle(movie);
    ILumetManager* manager = CreateLumetManager();
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        manager->AddSubtitle(u"movie", u"g", &subtitle.item, 1, 0, 0, false, 0);
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
        manager->RemoveSubtitle(u"movie");
    }
    DeleteLumetManager(manager);
}
BENCHMARK(BM_AddSubtitleWithMovie)->UseManualTime()->Unit(benchmark::kMillisecond);

// A render thread draws a 1080p frame every 16.7 ms while ten subtitles with
// movies are added one after the other; the counter is its slowest frame.
void BM_WorstFrameWhileAdding(benchmark::State& state) {
    const std::string movie = Movie(10);
    if (movie.empty()) {
        state.SkipWithError("ffmpeg could not make the movie");
        return;
    }
    MovieSubtitle subtitle(movie);
    double worstMs = 0;
    for (auto _ : state) {
        ILumetManager* manager = CreateLumetManager();
        std::atomic<bool> done{false};
        std::atomic<int64_t> worstUs{0};
        std::thread render([&] {
            std::vector<uint8_t> frame(static_cast<size_t>(kWidth) * 3 * kHeight, 90);
            auto next = std::chrono::steady_clock::now();
            while (!done) {
                const auto start = std::chrono::steady_clock::now();
                manager->DrawToBuffer(frame.data(), kWidth, kHeight, 1.0f);
                const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                                    std::chrono::steady_clock::now() - start)
                                    .count();
                worstUs = std::max<int64_t>(worstUs, us);
                next += std::chrono::microseconds(16667);
                std::this_thread::sleep_until(next);
            }
        });
        for (int i = 0; i < 10; ++i) {
            const std::u16string id = u"movie" + U16(std::to_string(i));
            manager->AddSubtitle(id.c_str(), u"g", &subtitle.item, 1, 0, 0, false, 0);
        }
        done = true;
        render.join();
        DeleteLumetManager(manager);
        worstMs = static_cast<double>(worstUs.load()) / 1000.0;
    }
    state.counters["worst_frame_ms"] = worstMs;
}
BENCHMARK(BM_WorstFrameWhileAdding)->Iterations(1)->Unit(benchmark::kMillisecond);

// One new movie frame, all of it: the time step that decodes it and the draw
// that converts (or finds it converted) and blends it, at 1.0 and 1.5.
void BM_NewMovieFrame(benchmark::State& state) {
    const float scale = static_cast<float>(state.range(0)) / 100.f;
    const std::string movie = Movie(10);
    if (movie.empty()) {
        state.SkipWithError("ffmpeg could not make the movie");
        return;
    }
    lumets::SetTimeMode(lumets::TimeMode::Virtual);
    IFlashPlayer* player = CreateFlashPlayer();
    player->Open(U16(movie).c_str(), 0, true);
    // Drawn at 1.5 the 1080p movie would not fit a 1080p frame: the host's
    // frame is as large as the scaled movie.
    const int width = static_cast<int>(kWidth * scale);
    const int height = static_cast<int>(kHeight * scale);
    std::vector<uint8_t> frame(static_cast<size_t>(width + 1) * 3 * height, 90);
    const RECT clip{0, 0, kWidth, kHeight};
    const POINT pos{0, 0};
    for (auto _ : state) {
        lumets::AdvanceBy(40);  // the next movie frame
        player->RenderToFrame(frame.data(), static_cast<uint32_t>(width),
                              static_cast<uint32_t>(height), &clip, &pos, scale);
        benchmark::DoNotOptimize(frame.data());
    }
    DeleteFlashPlayer(player);
    lumets::SetTimeMode(lumets::TimeMode::Real);
}
BENCHMARK(BM_NewMovieFrame)->Arg(100)->Arg(150)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

// Many lines at once (a chat wall, a ticker board): N subtitles, each a
// scrolling outlined line on a plate, drawn into a 1920 x 1080 frame per
// frame in virtual time, the playing threads' wake-ups included (the whole
// AdvanceBy + DrawToBuffer of a 60 fps frame), and the set-up per subtitle
// (every AddSubtitle through the first frame drawn), each line its own text.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <string>
#include <vector>

#include "bench_fixtures.h"
#include "lumets/lumets.h"
#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"

namespace {

constexpr int kW = 1920;
constexpr int kH = 1080;

void BM_Lines(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    lumets::Clock clock;
    const lumets::Clock::Scope onClock(clock);
    std::vector<uint8_t> frame(static_cast<size_t>(lumets::RowStride(kW, 24)) * kH, 40);
    const auto text = lumets::bench::OutlinedText(
        u"Breaking: a chat line, a ticker, a leaderboard row 直播字幕 scrolls across the frame",
        28);
    text->rcClip = RECT{0, 0, kW - 20, 44};
    text->nDirection = 2;
    text->nSpeed = 120;
    text->bWrap = 1;
    BackgroundPart plate{0x203040, 60, 1, {}};  // spanning the line
    ItemDescription item{nullptr, text.get(), &plate, 0, {}};
    const int pitch = std::min(60, (kH - 60) / n);

    ILumetManager* manager = CreateLumetManager();
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < n; ++i) {
        // Each its own line, of words a chat repeats, apart in their scroll.
        static const std::u16string kWords[] = {u"gg ",     u"nice play ", u"直播 ",  u"LOL ",
                                                u"hello ",  u"字幕 ",      u"what? ", u"wow 🎉 ",
                                                u"rank 3 ", u"so close "};
        std::u16string line = u"#" + std::u16string(1, static_cast<char16_t>(u'A' + i % 26)) + u" ";
        for (int w = 0; w < 12; ++w) {
            line += kWords[(i * 7 + w * (i % 5 + 1)) % 10];
        }
        std::fill(std::begin(text->text), std::end(text->text), u'\0');
        std::copy(line.begin(), line.end(), text->text);
        text->x = (i * 373) % kW;
        const std::u16string id = u"line " + std::u16string(1, static_cast<char16_t>(u'0' + i));
        manager->AddSubtitle(id.c_str(), u"wall", &item, 1, 10, i * pitch, true, 0);
    }
    clock.WaitUntilSettled();
    manager->DrawToBuffer(frame.data(), kW, kH, 1.0f);
    const std::chrono::duration<double, std::milli> setUp =
        std::chrono::steady_clock::now() - start;
    state.counters["setup_ms_per_subtitle"] = setUp.count() / n;

    uint64_t frames = 0;
    for (auto _ : state) {
        // 60 fps in whole milliseconds: 16, 17, 17, ...
        clock.AdvanceBy((frames + 1) * 50 / 3 - frames * 50 / 3);
        ++frames;
        manager->DrawToBuffer(frame.data(), kW, kH, 1.0f);
        benchmark::DoNotOptimize(frame.data());
    }
    manager->RemoveAllSubtitles();
    DeleteLumetManager(manager);
}
BENCHMARK(BM_Lines)
    ->Arg(1)
    ->Arg(10)
    ->Arg(50)
    ->Arg(200)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();

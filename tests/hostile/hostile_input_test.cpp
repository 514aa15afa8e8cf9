// Hostile input, as a careless or hostile host passes it: each case runs in a
// child process that must finish within its CPU time and memory, so a
// regression fails here instead of stalling the test run.
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "log/log_config.h"
#include "log/logger.h"
#include "lumets/time_source.h"
#include "lumets_common/av_handles.h"
#include "lumets_common/picture_limits.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_common/scaled_composite.h"
#include "lumets_platform/utf16.h"
#include "manager/lumet_manager.h"
#include "subtitle/subtitle_background.h"
#include "text/text_renderer.h"

namespace lumets {
namespace {

// The sanitizers slow code down and count their shadow memory as the
// process's own; an unoptimised build (coverage) is slow too.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || !defined(__OPTIMIZE__)
constexpr double kSlowdown = 6;
#else
constexpr double kSlowdown = 1;
#endif

struct Case {
    const char* name;
    double cpuSeconds;  // at most, without sanitizers
    long memoryMb;      // largest resident size, at most
    std::function<bool()> run;
};

// Runs c in a child process; empty when it finished in its limits and its
// check held, else what went wrong.
std::string RunBounded(const Case& c) {
    const pid_t child = fork();
    if (child == 0) {
        _exit(c.run() ? 0 : 1);
    }
    const auto deadline = std::chrono::steady_clock::now() +
                          std::chrono::duration<double>(30 * kSlowdown * c.cpuSeconds + 10);
    int status = 0;
    rusage usage{};
    while (wait4(child, &status, WNOHANG, &usage) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            kill(child, SIGKILL);
            wait4(child, &status, 0, &usage);
            return "did not finish";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const double cpu = usage.ru_utime.tv_sec + usage.ru_utime.tv_usec / 1e6 +
                       usage.ru_stime.tv_sec + usage.ru_stime.tv_usec / 1e6;
    const long memoryMb = usage.ru_maxrss / 1024;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        return "failed its check or crashed";
    }
    if (cpu > c.cpuSeconds * kSlowdown || memoryMb > c.memoryMb * kSlowdown) {
        return "took " + std::to_string(cpu) + " s and " + std::to_string(memoryMb) + " MB";
    }
    return {};
}

bool RendersInLimits(const std::u16string& text, const TextStyle& style) {
    CTextRenderer renderer;
    renderer.Render(text.c_str(), &style);
    const SIZE size = renderer.GetSize();
    return size.cx >= 2 && size.cy >= 2 && size.cx <= kMaxPictureSide &&
           size.cy <= kMaxPictureSide && int64_t{size.cx} * size.cy <= kMaxPicturePixels;
}

TEST(HostileInput, EveryCaseFinishesInItsLimits) {
    test::ScratchDir dir;
    const std::string fifo = dir.File("fifo.ini");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const std::string zero = dir.File("zero.ini");
    std::filesystem::create_symlink("/dev/zero", zero);
    // The day's log file of a host "host.bin" on 2021-03-03 (UTC), a FIFO
    // that nobody reads.
    std::filesystem::create_directory(dir.Path() / "log");
    ASSERT_EQ(mkfifo(dir.File("log/host.bin_20210303.log").c_str(), 0600), 0);
    const std::string strip = dir.File("strip.png");
    ASSERT_TRUE(
        test::RunCommand("ffmpeg -nostdin -v error -y -f rawvideo -pix_fmt rgb24 -s "
                         "20000x2 -i /dev/zero -frames:v 1 " +
                         test::Quote(strip)));
    TextStyle vertical;
    vertical.vertical = 1;

    const Case cases[] = {
        {"65,535 W, vertical", 1.0, 512,
         [&] { return RendersInLimits(std::u16string(65535, u'W'), vertical); }},
        {"32,767 lines of W", 1.0, 512,
         [] {
             std::u16string text;
             for (int i = 0; i < 32767; ++i) {
                 text += u"W\n";
             }
             return RendersInLimits(text, TextStyle());
         }},
        {"32,767 colour emoji at 1100 pt", 1.0, 512,
         [] {
             std::u16string text;
             for (int i = 0; i < 32767; ++i) {
                 text += u"\U0001F600";
             }
             TextStyle style;
             style.fontSize = 1100;
             return RendersInLimits(text, style);
         }},
        {"1,024 lines of 63 W, outline pen 3, 200 and 1000", 1.0 * 3, 512,
         [] {
             std::u16string text;
             for (int i = 0; i < 1024; ++i) {
                 text += std::u16string(63, u'W') + u'\n';
             }
             TextStyle style;
             style.outline = 1;
             for (float pen : {3.0f, 200.0f, 1000.0f}) {
                 style.outlineWidth = pen;
                 if (!RendersInLimits(text, style)) {
                     return false;
                 }
             }
             return true;
         }},
        {"colour emoji at an 8,192 px em, vertical", 1.0, 512,
         [&] {
             TextStyle style = vertical;
             style.fontSize = -6144;
             return RendersInLimits(u"ive \u2728\U0001F600", style);
         }},
        {"4,500 W on one line at 400 pt", 1.0, 512,
         [] {
             TextStyle style;
             style.fontSize = 400;
             CTextRenderer renderer;
             renderer.Render(std::u16string(4500, u'W').c_str(), &style);
             return renderer.GetSize().cx == kMaxPictureSide;  // cut, not measured as 0
         }},
        {"log.ini a FIFO", 0.5, 128,
         [&] { return ReadLogConfigFile(fifo.c_str()).level == LogInfo; }},
        {"log.ini a link to /dev/zero", 0.5, 128,
         [&] { return ReadLogConfigFile(zero.c_str()).level == LogInfo; }},
        {"the day's log file a FIFO", 0.5, 128,
         [&] {
             setenv("TZ", "UTC", 1);
             tzset();
             SetTimeMode(TimeMode::Virtual);
             SetVirtualWallClockMs(1614774896789);  // 2021-03-03 12:34:56.789 UTC
             Logger::ResetForTesting(dir.File("host.bin").c_str());
             LUMETS_LOG(LogError, "to the console only");
             return true;
         }},
        {"copy between overlapping rectangles", 0.5, 128,
         [] {
             std::vector<uint8_t> bytes(RowStride(64, 24) * 64, 7);
             const PictureView view = PackedPicture(bytes.data(), 64, 64, 24);
             CopyRectPixels(view, RECT{1, 1, 64, 64}, view, RECT{0, 0, 63, 63});
             return bytes[0] == 7;
         }},
        {"scaling a picture without spare bytes", 0.5, 128,
         [] {
             PixelBuffer picture;
             picture.Ensure(40, 20, 32);
             picture.width = 40;
             picture.height = 20;
             PixelBuffer scaled;
             std::vector<uint8_t> frame(RowStride(100, 24) * 100, 9);
             BlendScaledIntoFrame(picture, scaled, PackedPicture(frame.data(), 100, 100, 24),
                                  RECT{0, 0, 100, 100}, POINT{0, 0}, 2.0f, nullptr);
             return frame == std::vector<uint8_t>(frame.size(), 9);
         }},
        {"a plate for a 16,370 px text", 1.0, 512,
         [] {
             CSubtitleBackground plate;
             POINT shift{};
             plate.BuildBackground(16370, 40, shift);
             return plate.Plate().width == 16370 + 52 && plate.Plate().Data() != nullptr;
         }},
        {"a corrupt PNG keeps FFmpeg quiet, not the host's own messages", 1.0, 256,
         [&] {
             std::vector<uint8_t> png = test::ReadBytes(strip);
             png[20] = 0x70;  // a height in the header that FFmpeg calls invalid
             const std::string captured = dir.File("stderr.txt");
             if (std::freopen(captured.c_str(), "w", stderr) == nullptr) {
                 return false;
             }
             PixelBuffer target;
             LoadImageBytes(target, png.data(), png.size());
             av_log(nullptr, AV_LOG_ERROR, "the host speaks\n");
             std::fflush(stderr);
             const std::vector<uint8_t> text = test::ReadBytes(captured);
             return target.Data() == nullptr &&
                    std::string(text.begin(), text.end()) == "the host speaks\n";
         }},
        {"a 3000 x 1760 text at scale 2 in a 320 x 200 frame shows its visible part", 1.0, 256,
         [] {
             PixelBuffer text;
             EnsureScalable(text, 3000, 1760);
             text.width = 3000;
             text.height = 1760;
             std::memset(text.Data(), 0xFF, text.Capacity());
             PixelBuffer scaled;
             std::vector<uint8_t> frame(RowStride(320, 24) * 200, 9);
             BlendScaledIntoFrame(text, scaled, PackedPicture(frame.data(), 320, 200, 24),
                                  RECT{0, 0, 320, 200}, POINT{-100, -100}, 2.0f, nullptr);
             return frame == std::vector<uint8_t>(frame.size(), 0xFF);
         }},
        {"a subtitle of 10,000 items", 4.0, 512,
         [] {
             // Every item of a queue starts its thread up front.
             std::vector<ItemDescription> items(10000,
                                                ItemDescription{nullptr, nullptr, nullptr, 1, {}});
             CLumetManager manager;
             manager.AddSubtitle(u"x", u"g", items.data(), 10000, 0, 0, true, 0);
             manager.RemoveSubtitle(u"x");
             POINT position{};
             return !manager.GetSubtitlePosition(u"x", &position);
         }},
        {"a 20000 x 2 PNG", 1.0, 256,
         [&] {
             PixelBuffer target;
             LoadImageFile(target, platform::Utf8ToU16(strip).c_str());
             return target.width == 20000 && target.height == 2;
         }},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(RunBounded(c), "") << c.name;
    }
}

}  // namespace
}  // namespace lumets

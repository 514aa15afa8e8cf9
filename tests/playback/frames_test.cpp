// Scenes through the C interface as hosts play them: every frame layout gives
// the pixels of the library's own 24-bit bottom-up frame, and scenes on
// clocks of their own give the same frames together as alone.
#include <lumets/lumets.h>
#include <lumets/lumets_scene.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string kDemo = std::string(LUMETS_SOURCE_DIR) + "/data/demo/scene.json";
const std::string kTicker = std::string(LUMETS_SOURCE_DIR) + "/docs/examples/ticker.json";

struct SceneHandle {
    explicit SceneHandle(const std::string& path) {
        EXPECT_EQ(lumets_scene_open_file(path.c_str(), &scene), LUMETS_OK) << lumets_last_error();
    }
    ~SceneHandle() { lumets_scene_close(scene); }
    lumets_scene* scene = nullptr;
};

// A backdrop that differs at every pixel and channel, so that a channel put
// in the wrong place, or a row in the wrong one, shows.
uint8_t Backdrop(int32_t x, int32_t y, int32_t c) {
    return static_cast<uint8_t>(x * 7 + y * 13 + c * 85);
}

struct Layout {
    const char* name;
    int32_t format;
    bool bottomUp;
    bool negativeStride;
    int32_t padding;  // bytes after each row
};

TEST(Frames, EveryLayoutGivesTheReferencePixelsChannelForChannel) {
    constexpr int32_t kW = 1280;
    constexpr int32_t kH = 720;
    const Layout layouts[] = {
        {"bgr24 top-down", LUMETS_FORMAT_BGR24, false, false, 0},
        {"rgb24 padded", LUMETS_FORMAT_RGB24, false, false, 5},
        {"bgrx bottom-up", LUMETS_FORMAT_BGRX, true, false, 0},
        {"bgra negative stride", LUMETS_FORMAT_BGRA, false, true, 16},
        {"rgbx top-down", LUMETS_FORMAT_RGBX, false, false, 0},
        {"rgba bottom-up, negative stride", LUMETS_FORMAT_RGBA, true, true, 0},
    };
    SceneHandle demo(kDemo);
    ASSERT_NE(demo.scene, nullptr);
    for (const int64_t timeMs : {1000, 4500, 7000}) {
        // The reference: B, G, R rows bottom-up, padded to 4 bytes.
        const int32_t refStride = (kW * 3 + 3) & ~3;
        std::vector<uint8_t> ref(static_cast<size_t>(refStride) * kH);
        for (int32_t y = 0; y < kH; ++y) {
            for (int32_t x = 0; x < kW; ++x) {
                for (int32_t c = 0; c < 3; ++c) {
                    ref[static_cast<size_t>(kH - 1 - y) * refStride + x * 3 + c] =
                        Backdrop(x, y, c);
                }
            }
        }
        const lumets_frame reference{
            ref.data(), kW, kH, refStride, LUMETS_FORMAT_BGR24, LUMETS_FRAME_BOTTOM_UP};
        const std::vector<uint8_t> backdrop = ref;
        ASSERT_EQ(lumets_scene_render(demo.scene, timeMs, &reference), LUMETS_OK);
        size_t drawn = 0;
        for (size_t i = 0; i < ref.size(); ++i) {
            drawn += ref[i] != backdrop[i];
        }
        ASSERT_GT(drawn, 10000u) << "the scene shows at " << timeMs << " ms";

        for (const Layout& layout : layouts) {
            SCOPED_TRACE(std::string(layout.name) + " at " + std::to_string(timeMs) + " ms");
            const int32_t bytes = layout.format <= LUMETS_FORMAT_RGB24 ? 3 : 4;
            const bool rgb = layout.format == LUMETS_FORMAT_RGB24 ||
                             layout.format == LUMETS_FORMAT_RGBX ||
                             layout.format == LUMETS_FORMAT_RGBA;
            const int32_t stride = kW * bytes + layout.padding;
            std::vector<uint8_t> pixels(static_cast<size_t>(stride) * kH, 0xEE);
            // Memory row m holds the top-down row y the layout puts there.
            const auto rowOf = [&](int32_t m) { return layout.bottomUp ? kH - 1 - m : m; };
            const auto at = [&](int32_t x, int32_t m, int32_t c) -> uint8_t& {
                return pixels[static_cast<size_t>(m) * stride + x * bytes + c];
            };
            for (int32_t m = 0; m < kH; ++m) {
                for (int32_t x = 0; x < kW; ++x) {
                    for (int32_t c = 0; c < 3; ++c) {
                        at(x, m, rgb ? 2 - c : c) = Backdrop(x, rowOf(m), c);
                    }
                    if (bytes == 4) {
                        at(x, m, 3) = static_cast<uint8_t>(x ^ m);
                    }
                }
            }
            // A negative stride starts at the far row and walks back.
            lumets_frame frame{pixels.data(),
                               kW,
                               kH,
                               stride,
                               layout.format,
                               layout.bottomUp ? LUMETS_FRAME_BOTTOM_UP : 0u};
            if (layout.negativeStride) {
                frame.data = pixels.data() + static_cast<size_t>(stride) * (kH - 1);
                frame.stride = -stride;
                frame.flags ^= LUMETS_FRAME_BOTTOM_UP;
            }
            ASSERT_EQ(lumets_scene_render(demo.scene, timeMs, &frame), LUMETS_OK)
                << lumets_last_error();
            size_t wrong = 0;
            for (int32_t m = 0; m < kH && wrong < 5; ++m) {
                const int32_t y = rowOf(m);
                for (int32_t x = 0; x < kW && wrong < 5; ++x) {
                    for (int32_t c = 0; c < 3; ++c) {
                        const uint8_t want =
                            ref[static_cast<size_t>(kH - 1 - y) * refStride + x * 3 + c];
                        if (at(x, m, rgb ? 2 - c : c) != want) {
                            ADD_FAILURE() << "x " << x << " y " << y << " channel " << c;
                            ++wrong;
                        }
                    }
                    if (bytes == 4 && at(x, m, 3) != static_cast<uint8_t>(x ^ m)) {
                        ADD_FAILURE() << "the fourth byte changed at x " << x << " y " << y;
                        ++wrong;
                    }
                }
                for (int32_t p = 0; p < layout.padding; ++p) {
                    wrong += pixels[static_cast<size_t>(m) * stride + kW * bytes + p] != 0xEE;
                }
            }
            EXPECT_EQ(wrong, 0u);
        }
    }
}

// Renders scene at each time into a fresh 24-bit frame; the frames' bytes.
std::vector<std::vector<uint8_t>> Play(lumets_scene* scene, const std::vector<int64_t>& times) {
    std::vector<std::vector<uint8_t>> frames;
    for (const int64_t t : times) {
        std::vector<uint8_t> bytes(size_t{640} * 3 * 360, 0x30);
        const lumets_frame frame{bytes.data(), 640, 360, 640 * 3, LUMETS_FORMAT_BGR24, 0};
        EXPECT_EQ(lumets_scene_render(scene, t, &frame), LUMETS_OK) << lumets_last_error();
        frames.push_back(std::move(bytes));
    }
    return frames;
}

TEST(Frames, ScenesOnTheirOwnClocksGiveTheFramesTheyGiveAlone) {
    std::vector<int64_t> demoTimes;
    std::vector<int64_t> tickerTimes;
    for (int64_t i = 0; i < 24; ++i) {
        demoTimes.push_back(i * 1000 / 30);       // 30 frames a second
        tickerTimes.push_back(i * 1000 / 7 + 3);  // and an unrelated rate
    }
    const auto alone = [](const std::string& path, const std::vector<int64_t>& times) {
        SceneHandle s(path);
        return Play(s.scene, times);
    };
    const auto demoAlone = alone(kDemo, demoTimes);
    const auto tickerAlone = alone(kTicker, tickerTimes);

    // Together, each on a host thread of its own, while a third host uses a
    // manager directly on the process-wide clock in real time.
    std::atomic<bool> stop{false};
    std::thread direct([&stop] {
        ILumetManager* manager = CreateLumetManager();
        std::vector<uint8_t> frame((320 * 3 + 3) / 4 * 4 * 200);
        const uint64_t until = lumets::MonotonicMs() + 20000;
        while (!stop.load() && lumets::MonotonicMs() < until) {
            manager->DrawToBuffer(frame.data(), 320, 200, 1.0f);
            lumets::SleepMs(5);
        }
        DeleteLumetManager(manager);
    });
    std::vector<std::vector<uint8_t>> demoTogether;
    std::vector<std::vector<uint8_t>> tickerTogether;
    std::thread demoHost([&] { demoTogether = alone(kDemo, demoTimes); });
    std::thread tickerHost([&] { tickerTogether = alone(kTicker, tickerTimes); });
    demoHost.join();
    tickerHost.join();
    stop = true;
    direct.join();
    EXPECT_TRUE(demoTogether == demoAlone);
    EXPECT_TRUE(tickerTogether == tickerAlone);
    // The scenes did move: the frames are not all alike.
    EXPECT_NE(demoAlone.front(), demoAlone.back());
    EXPECT_NE(tickerAlone.front(), tickerAlone.back());
}

}  // namespace

namespace {

// A frame of the ticker as BGR24 bytes at time t.
std::vector<uint8_t> Frame(lumets_scene* scene, int64_t t) {
    return Play(scene, {t}).front();
}

TEST(Frames, ABannersActionPutsUpChangesAndTakesDownABanner) {
    SceneHandle ticker(kTicker);
    ASSERT_NE(ticker.scene, nullptr);
    const std::vector<uint8_t> bare = Frame(ticker.scene, 100);
    const std::string demo = std::string(LUMETS_SOURCE_DIR) + "/data/demo/";
    const std::string up = R"({"do": "banners", "ombrel": {"text": "Gift!", "caps": ")" + demo +
                           R"(caps.png", "middle": ")" + demo +
                           R"(middle.png", "rect": [520, 20, 920, 80]}})";
    ASSERT_EQ(lumets_scene_apply(ticker.scene, up.c_str(), up.size()), LUMETS_OK)
        << lumets_last_error();
    EXPECT_NE(Frame(ticker.scene, 100), bare);
    char* state = nullptr;
    ASSERT_EQ(lumets_scene_state(ticker.scene, &state), LUMETS_OK);
    // The state gives the banner as a scene writes it: it goes back as it is.
    const std::string shown(state);
    lumets_free(state);
    const size_t ombrel = shown.find(R"("ombrel":{)");
    ASSERT_NE(ombrel, std::string::npos) << shown;
    EXPECT_NE(shown.find(R"("text":"Gift!")", ombrel), std::string::npos) << shown;
    const std::string again =
        R"({"do": "banners", )" + shown.substr(ombrel, shown.find('}', ombrel) + 1 - ombrel) + "}";
    EXPECT_EQ(lumets_scene_apply(ticker.scene, again.c_str(), again.size()), LUMETS_OK)
        << again << ": " << lumets_last_error();

    const std::string missing = R"({"do": "banners", "tavrin": {"image1": "no.png",
        "image2": "no.png"}})";
    EXPECT_EQ(lumets_scene_apply(ticker.scene, missing.c_str(), missing.size()),
              LUMETS_ERROR_ACTION);
    EXPECT_NE(std::string(lumets_last_error()).find("action:1:40: media file"), std::string::npos)
        << lumets_last_error();

    const std::string down = R"({"do": "banners", "ombrel": null})";
    ASSERT_EQ(lumets_scene_apply(ticker.scene, down.c_str(), down.size()), LUMETS_OK);
    EXPECT_EQ(Frame(ticker.scene, 100), bare);
}

}  // namespace

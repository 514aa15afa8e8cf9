// lumets-obs in a real libobs on Mesa under Xvfb: the source's picture,
// drawn through the studio's own rendering and read back, against the scene
// library's render at the same time; the studio's own draws after it; its
// clock; bad scenes and removal; and the studio program itself.
#include <gtest/gtest.h>
#include <lumets/lumets_scene.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/scratch_files.h"
#include "studio.h"

namespace {

using lumets::test::AwaitFrames;
using lumets::test::Data;
using lumets::test::Make;
using lumets::test::Props;
using lumets::test::Source;
using Bytes = std::vector<uint8_t>;
constexpr uint32_t kW = 640;
constexpr uint32_t kH = 360;
constexpr uint8_t kGrey = 0x40;
const std::string kTicker = LUMETS_SOURCE_DIR "/docs/examples/ticker.json";
const std::string kChat = LUMETS_SOURCE_DIR "/docs/examples/chat.json";

// Starts the studio once for the suite.
class StudioEnvironment : public ::testing::Environment {
  public:
    void SetUp() override { ASSERT_TRUE(m_studio.Start(kW, kH)) << m_studio.Error(); }
    void TearDown() override { m_studio.Stop(); }

  private:
    lumets::test::CStudio m_studio;
};

Source Lumets(const std::string& path, int width = 0) {
    Source source = Make("lumets_scene", R"({"scene_file": ")" + path + R"(", "width": )" +
                                             std::to_string(width) + "}");
    obs_source_media_play_pause(source.get(), true);  // time moves by seeks only
    return source;
}

// The canvas, grey beneath, with source drawn and then `after` at (20, 20):
// RGBA rows top-down, read back through a stage surface.
Bytes Canvas(obs_source_t* source, obs_source_t* after = nullptr) {
    Bytes pixels(size_t{kW} * kH * 4);
    obs_enter_graphics();
    gs_texrender_t* target = gs_texrender_create(GS_RGBA, GS_ZS_NONE);
    gs_stagesurf_t* stage = gs_stagesurface_create(kW, kH, GS_RGBA);
    if (gs_texrender_begin(target, kW, kH)) {
        vec4 grey;
        vec4_set(&grey, kGrey / 255.f, kGrey / 255.f, kGrey / 255.f, 1.f);
        gs_clear(GS_CLEAR_COLOR, &grey, 0.f, 0);
        gs_ortho(0.f, float{kW}, 0.f, float{kH}, -100.f, 100.f);
        obs_source_video_render(source);
        if (after != nullptr) {
            gs_matrix_push();
            gs_matrix_translate3f(20.f, 20.f, 0.f);
            obs_source_video_render(after);
            gs_matrix_pop();
        }
        gs_texrender_end(target);
        gs_stage_texture(stage, gs_texrender_get_texture(target));
        uint8_t* data = nullptr;
        uint32_t line = 0;
        if (gs_stagesurface_map(stage, &data, &line)) {
            for (uint32_t y = 0; y < kH; ++y) {
                std::copy_n(data + size_t{line} * y, kW * 4, pixels.data() + size_t{kW} * 4 * y);
            }
            gs_stagesurface_unmap(stage);
        }
    }
    gs_stagesurface_destroy(stage);
    gs_texrender_destroy(target);
    obs_leave_graphics();
    return pixels;
}

Bytes Reference(const std::string& path, int64_t ms) {
    Bytes pixels(size_t{kW} * kH * 4, kGrey);
    lumets_scene* scene = nullptr;
    EXPECT_EQ(lumets_scene_open_file(path.c_str(), &scene), LUMETS_OK) << lumets_last_error();
    const lumets_frame frame{pixels.data(), kW, kH, kW * 4, LUMETS_FORMAT_RGBA, 0};
    EXPECT_EQ(lumets_scene_render(scene, ms, &frame), LUMETS_OK) << lumets_last_error();
    lumets_scene_close(scene);
    for (size_t i = 3; i < pixels.size(); i += 4) {
        pixels[i] = 255;
    }
    return pixels;
}

// Pixels further apart than the GPU's rounding (12 in a channel), and those
// that differ at all from the grey beneath.
std::pair<size_t, size_t> Compare(const Bytes& got, const Bytes& want) {
    size_t far = 0;
    size_t drawn = 0;
    for (size_t i = 0; i < got.size(); i += 4) {
        int worst = 0;
        for (size_t c = 0; c < 4; ++c) {
            worst = std::max(worst, std::abs(got[i + c] - want[i + c]));
        }
        far += worst > 12;
        drawn += got[i] != kGrey || got[i + 1] != kGrey || got[i + 2] != kGrey;
    }
    return {far, drawn};
}

std::string PropertyText(obs_source_t* source, const char* name) {
    const Props props(obs_source_properties(source));
    obs_property_t* p = obs_properties_get(props.get(), name);
    return p != nullptr ? obs_property_description(p) : "";
}

TEST(ObsSource, DrawsAsTheLibraryDoesAndLeavesLaterDrawsAlone) {
    const Source ticker = Lumets(kTicker);
    const Source green = Make("color_source_v3", R"({"color": 4278255360, "width": 100,
                                                      "height": 50})");
    ASSERT_TRUE(ticker && green);
    EXPECT_EQ(obs_source_get_width(ticker.get()), kW);  // the canvas's, by default
    for (const int64_t ms : {500, 1500, 3500, 800}) {
        SCOPED_TRACE(ms);
        obs_source_media_set_time(ticker.get(), ms);
        Bytes want = Reference(kTicker, ms);
        for (uint32_t y = 20; y < 70; ++y) {
            for (uint32_t x = 20; x < 120; ++x) {
                const size_t i = (size_t{y} * kW + x) * 4;
                want[i] = want[i + 2] = 0;
                want[i + 1] = want[i + 3] = 255;
            }
        }
        const auto [far, drawn] = Compare(Canvas(ticker.get(), green.get()), want);
        EXPECT_LE(far, size_t{kW} * kH / 100);
        EXPECT_GT(drawn, 5000u + 100 * 50);
    }
    // The scene scales to the width asked for, not the picture.
    const Source half = Lumets(kTicker, 320);
    obs_source_media_set_time(half.get(), 1500);
    const auto [far, drawn] = Compare(Canvas(half.get()), Reference(kTicker, 1500));
    EXPECT_GT(far, 1000u);
    EXPECT_GT(drawn, 1000u);
}

TEST(ObsSource, ItsClockRunsWhileShownAndUnpaused) {
    const Source ticker = Lumets(kTicker);
    obs_source_inc_showing(ticker.get());
    ASSERT_TRUE(AwaitFrames(5));
    EXPECT_EQ(obs_source_media_get_time(ticker.get()), 0);  // paused
    EXPECT_EQ(obs_source_media_get_state(ticker.get()), OBS_MEDIA_STATE_PAUSED);
    obs_source_media_play_pause(ticker.get(), false);
    ASSERT_TRUE(AwaitFrames(10));
    const int64_t shown = obs_source_media_get_time(ticker.get());
    EXPECT_GE(shown, 9 * 33);
    obs_source_dec_showing(ticker.get());
    ASSERT_TRUE(AwaitFrames(2));
    const int64_t hidden = obs_source_media_get_time(ticker.get());
    ASSERT_TRUE(AwaitFrames(10));
    EXPECT_EQ(obs_source_media_get_time(ticker.get()), hidden);
    EXPECT_EQ(obs_source_media_get_duration(ticker.get()), 6000);
}

TEST(ObsSource, BadScenesAndRemovalNeverHurtTheStudio) {
    lumets::test::ScratchDir dir;
    const auto write = [&](const std::string& name, const std::string& text) {
        lumets::test::WriteBytes(dir.File(name), Bytes(text.begin(), text.end()));
    };
    write("bad.json", "{\"size\": [1280, 720],\n \"fps\": \"x\"}");
    ASSERT_TRUE(lumets::test::RunCommand(
        "ffmpeg -v error -f lavfi -i testsrc=size=160x90:rate=30:duration=3 -c:v libvpx -y " +
        dir.File("movie.webm")));
    write("movie.json", R"({"size": [640, 360], "scene":
        {"path": "movie.webm", "rect": [100, 100, 420, 280]}})");
    const struct {
        std::string path;
        std::string error;
    } cases[] = {{dir.File("gone.json"), "gone.json: not found"},
                 {dir.File("bad.json"), "bad.json:2:9: \"fps\" must be a number"},
                 {dir.Path().string(), "is a folder, not a file"}};
    for (const auto& c : cases) {
        const Source source = Lumets(c.path);
        ASSERT_TRUE(source) << c.path;
        EXPECT_NE(PropertyText(source.get(), "error").find(c.error), std::string::npos)
            << PropertyText(source.get(), "error");
        EXPECT_EQ(obs_source_media_get_state(source.get()), OBS_MEDIA_STATE_ERROR);
        EXPECT_EQ(Compare(Canvas(source.get()), Bytes(size_t{kW} * kH * 4, kGrey)).second, 0u);
        // A good scene put in its place plays, and the error goes.
        const Data settings(
            obs_data_create_from_json(("{\"scene_file\": \"" + kChat + "\"}").c_str()));
        obs_source_update(source.get(), settings.get());
        ASSERT_TRUE(AwaitFrames(2));  // a video source takes its settings at the next tick
        EXPECT_EQ(PropertyText(source.get(), "error"), "");
        obs_source_media_set_time(source.get(), 2000);
        EXPECT_LE(Compare(Canvas(source.get()), Reference(kChat, 2000)).first,
                  size_t{kW} * kH / 100);
    }
    // A movie plays on the studio's context; the source goes while it plays.
    Source movie = Lumets(dir.File("movie.json"));
    for (const int64_t ms : {100, 400, 900}) {
        obs_source_media_set_time(movie.get(), ms);
        EXPECT_GT(Compare(Canvas(movie.get()), Bytes(size_t{kW} * kH * 4, kGrey)).second,
                  200u * 150);
    }
    movie.reset();
    EXPECT_TRUE(AwaitFrames(2));  // the studio draws on
}

// The studio program with a collection of two Lumets sources: it loads the
// module from the build tree, creates the sources without a complaint, and
// shows them (the screenshot goes to docs/ with LUMETS_UPDATE_DOCS=1).
TEST(ObsSource, PlaysInTheStudioProgram) {
    lumets::test::ScratchDir dir;
    const std::string config = dir.File("config/obs-studio");
    std::filesystem::create_directories(config + "/basic/scenes");
    std::filesystem::create_directories(config + "/basic/profiles/Lumets");
    const auto write = [&](const std::string& name, const std::string& text) {
        ASSERT_TRUE(lumets::test::WriteBytes(config + name, Bytes(text.begin(), text.end())));
    };
    write("/global.ini",
          "[General]\nFirstRun=true\n[Basic]\nProfile=Lumets\nProfileDir=Lumets\n"
          "SceneCollection=Lumets\nSceneCollectionFile=Lumets\n");
    write("/basic/profiles/Lumets/basic.ini",
          "[General]\nName=Lumets\n[Video]\nBaseCX=1280\nBaseCY=720\nOutputCX=1280\n"
          "OutputCY=720\nFPSCommon=30\n");
    std::string items;
    std::string sources;
    for (const std::string name : {"Ticker", "Chat"}) {
        const std::string file = name == "Ticker" ? kTicker : kChat;
        items += (items.empty() ? "" : ",") + std::string(R"({"name": ")") + name +
                 R"(", "visible": true, "scale": {"x": 1.0, "y": 1.0}})";
        sources += R"(, {"id": "lumets_scene", "name": ")" + name +
                   R"(", "settings": {"scene_file": ")" + file + R"("}})";
    }
    write("/basic/scenes/Lumets.json",
          R"({"name": "Lumets", "current_scene": "Stream", "current_program_scene": "Stream",
              "scene_order": [{"name": "Stream"}], "sources": [{"id": "scene", "name": "Stream",
              "settings": {"items": [)" +
              items + "]}}" + sources + "]}");
    // The studio ignores SIGINT; the timeout ends it if the test cannot.
    ASSERT_TRUE(lumets::test::RunCommand(
        std::string(LUMETS_CHILD_ENV) + "; export XDG_CONFIG_HOME=" + dir.File("config") +
        " OBS_PLUGINS_PATH=" + LUMETS_OBS_DIR + " OBS_PLUGINS_DATA_PATH=" + LUMETS_OBS_DATA +
        "; (timeout -s KILL 90 obs --collection Lumets --profile Lumets --scene Stream "
        "--disable-missing-files-check >/dev/null 2>&1 &)"));
    // Bounded waits for another process: until the log says both play, then
    // until the screen shows the ticker's plate (#102040 at 75 % on black).
    const auto logText = [&] {
        std::error_code none;  // no log yet
        for (const auto& entry : std::filesystem::directory_iterator(config + "/logs", none)) {
            const Bytes bytes = lumets::test::ReadBytes(entry.path().string());
            return std::string(bytes.begin(), bytes.end());
        }
        return std::string();
    };
    for (int i = 0; i < 300 && logText().find("Chat: playing") == std::string::npos; ++i) {
        os_sleep_ms(100);
    }
    const std::string shot = dir.File("shot.png");
    for (int i = 0; i < 40; ++i) {
        ASSERT_TRUE(lumets::test::RunCommand(
            "ffmpeg -v error -f x11grab -i $DISPLAY -frames:v 1 -y " + shot +
            " && ffmpeg -v error -i " + shot + " -f rawvideo -pix_fmt rgb24 -y " + shot + ".rgb"));
        const Bytes screen = lumets::test::ReadBytes(shot + ".rgb");
        size_t plate = 0;
        for (size_t p = 0; p + 2 < screen.size(); p += 3) {
            plate += std::abs(screen[p] - 12) + std::abs(screen[p + 1] - 24) +
                         std::abs(screen[p + 2] - 48) <=
                     6;
        }
        if (plate > 2000) {
            break;
        }
        os_sleep_ms(500);
    }
    lumets::test::RunCommand("pkill -KILL -x obs");
    const std::string text = logText();
    EXPECT_NE(text.find("lumets-obs.so"), std::string::npos);
    for (const char* name : {"Ticker", "Chat"}) {
        EXPECT_NE(text.find(std::string("- source: '") + name + "' (lumets_scene)"),
                  std::string::npos);
        EXPECT_NE(text.find(std::string("[lumets-obs] ") + name + ": playing"), std::string::npos);
    }
    // Nothing else from the source: no warning, no error.
    size_t said = 0;
    for (size_t at = text.find("[lumets-obs]"); at != std::string::npos;
         at = text.find("[lumets-obs]", at + 1)) {
        ++said;
    }
    EXPECT_EQ(said, 2u) << text;
    if (const char* update = std::getenv("LUMETS_UPDATE_DOCS"); update && *update == '1') {
        std::filesystem::copy_file(shot, LUMETS_SOURCE_DIR "/docs/obs-source.png",
                                   std::filesystem::copy_options::overwrite_existing);
    }
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    ::testing::AddGlobalTestEnvironment(new StudioEnvironment);
    return RUN_ALL_TESTS();
}

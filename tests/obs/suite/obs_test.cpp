// lumets-obs in a real libobs on Mesa under Xvfb: the source's picture,
// drawn through the studio's own rendering and read back, against the scene
// library's render at the same time; the studio's own draws after it; its
// clock; bad scenes and removal; and the studio program itself.
#include <gtest/gtest.h>
#include <lumets/lumets_scene.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "common/scratch_files.h"
#include "obs/studio.h"

namespace {

using namespace lumets::test;
using Bytes = std::vector<uint8_t>;
constexpr uint32_t kW = 640;
constexpr uint32_t kH = 360;
constexpr uint8_t kGrey = 0x40;
const std::string kTicker = LUMETS_SOURCE_DIR "/docs/examples/ticker.json";
const std::string kChat = LUMETS_SOURCE_DIR "/docs/examples/chat.json";

Source Lumets(const std::string& path) {
    Source source = Make("lumets_scene", R"({"scene_file": ")" + path + R"("})");
    obs_source_media_play_pause(source.get(), true);  // time moves by seeks only
    return source;
}

// The canvas, grey beneath, with source drawn and then `after` at (20, 20):
// RGBA rows top-down, read back through a stage surface.
Bytes Canvas(obs_source_t* source, obs_source_t* after = nullptr) {
    Bytes pixels(size_t{kW} * kH * 4);
    const lumets::obs::CGraphics graphics;
    const lumets::obs::TexRender target(gs_texrender_create(GS_RGBA, GS_ZS_NONE));
    const lumets::obs::StageSurface stage(gs_stagesurface_create(kW, kH, GS_RGBA));
    if (!gs_texrender_begin(target.get(), kW, kH)) {
        return pixels;
    }
    vec4 grey;
    vec4_set(&grey, kGrey / 255.f, kGrey / 255.f, kGrey / 255.f, 1.f);
    gs_clear(GS_CLEAR_COLOR, &grey, 0.f, 0);
    gs_ortho(0.f, float{kW}, 0.f, float{kH}, -100.f, 100.f);
    obs_source_video_render(source);
    gs_matrix_push();
    gs_matrix_translate3f(20.f, 20.f, 0.f);
    if (after != nullptr) {
        obs_source_video_render(after);
    }
    gs_matrix_pop();
    gs_texrender_end(target.get());
    gs_stage_texture(stage.get(), gs_texrender_get_texture(target.get()));
    uint8_t* data = nullptr;
    uint32_t line = 0;
    if (gs_stagesurface_map(stage.get(), &data, &line)) {
        std::copy_n(data, line == kW * 4 ? pixels.size() : 0, pixels.begin());
        gs_stagesurface_unmap(stage.get());
    }
    return pixels;
}

Bytes Reference(const std::string& path, int64_t ms) {
    Bytes pixels(size_t{kW} * kH * 4, kGrey);
    lumets_scene* scene = nullptr;
    EXPECT_EQ(lumets_scene_open_file(path.c_str(), &scene), LUMETS_OK) << lumets_last_error();
    const lumets_frame frame{pixels.data(), kW, kH, kW * 4, LUMETS_FORMAT_RGBA, 0};
    EXPECT_EQ(lumets_scene_render(scene, ms, &frame), LUMETS_OK) << lumets_last_error();
    lumets_scene_close(scene);
    return pixels;
}

// Pixels further apart than the GPU's rounding (12 in a channel), and those
// that differ at all from the grey beneath.
std::pair<size_t, size_t> Compare(const Bytes& got, const Bytes& want) {
    std::pair<size_t, size_t> counts;
    for (size_t i = 0; i < got.size(); i += 4) {
        const auto off = [&](size_t c, int from) { return std::abs(got[i + c] - from); };
        counts.first += std::max({off(0, want[i]), off(1, want[i + 1]), off(2, want[i + 2])}) > 12;
        counts.second += off(0, kGrey) + off(1, kGrey) + off(2, kGrey) > 0;
    }
    return counts;
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
        for (uint32_t y = 20; y < 70; ++y) {  // the colour source, drawn after
            for (size_t i = (size_t{y} * kW + 20) * 4; i < (size_t{y} * kW + 120) * 4; i += 4) {
                std::copy_n("\0\xff\0\xff", 4, want.begin() + static_cast<ptrdiff_t>(i));
            }
        }
        const auto [far, drawn] = Compare(Canvas(ticker.get(), green.get()), want);
        EXPECT_LE(far, size_t{kW} * kH / 100);
        EXPECT_GT(drawn, 5000u + 100 * 50);
    }
}

TEST(ObsSource, ItsClockRunsWhileShownAndUnpaused) {
    const Source ticker = Lumets(kTicker);
    obs_source_t* source = ticker.get();
    obs_source_inc_showing(source);
    ASSERT_TRUE(AwaitFrames(5));
    EXPECT_EQ(obs_source_media_get_state(source), OBS_MEDIA_STATE_PAUSED);
    EXPECT_EQ(obs_source_media_get_time(source), 0);
    obs_source_media_play_pause(source, false);
    ASSERT_TRUE(AwaitFrames(10));
    EXPECT_GE(obs_source_media_get_time(source), 9 * 33);
    obs_source_dec_showing(source);  // hidden: held where it is
    ASSERT_TRUE(AwaitFrames(2));
    const int64_t hidden = obs_source_media_get_time(source);
    ASSERT_TRUE(AwaitFrames(10));
    EXPECT_EQ(obs_source_media_get_time(source), hidden);
    EXPECT_EQ(obs_source_media_get_duration(source), 6000);
}

TEST(ObsSource, BadScenesAndRemovalNeverHurtTheStudio) {
    ScratchDir dir;
    const auto write = [&](const std::string& name, const std::string& text) {
        WriteBytes(dir.File(name), Bytes(text.begin(), text.end()));
    };
    write("bad.json", "{\"size\": [1280, 720],\n \"fps\": \"x\"}");
    ASSERT_TRUE(RunCommand(
        "ffmpeg -v error -f lavfi -i testsrc=size=160x90:rate=30:duration=3 -c:v libvpx -y " +
        dir.File("movie.webm")));
    write("movie.json", R"({"size": [640, 360], "scene":
        {"path": "movie.webm", "rect": [100, 100, 420, 280]}})");
    const Bytes grey(size_t{kW} * kH * 4, kGrey);
    for (const auto& [path, error] : std::vector<std::pair<std::string, std::string>>{
             {dir.File("gone.json"), "gone.json: not found"},
             {dir.File("bad.json"), "bad.json:2:9: \"fps\" must be a number"}}) {
        const Source source = Lumets(path);
        EXPECT_NE(PropertyText(source.get(), "error").find(error), std::string::npos)
            << PropertyText(source.get(), "error");
        EXPECT_EQ(obs_source_media_get_state(source.get()), OBS_MEDIA_STATE_ERROR);
        EXPECT_EQ(Compare(Canvas(source.get()), grey).second, 0u);
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
    // Live control: the page's address, with its token, shows in the properties.
    const Source live =
        Make("lumets_scene", R"({"control": true, "scene_file": ")" + kTicker + R"("})");
    EXPECT_NE(PropertyText(live.get(), "control_page").find("http://127.0.0.1:"),
              std::string::npos);
    // A movie plays on the studio's context; the source goes while it plays.
    Source movie = Lumets(dir.File("movie.json"));
    for (const int64_t ms : {100, 400, 900}) {
        obs_source_media_set_time(movie.get(), ms);
        EXPECT_GT(Compare(Canvas(movie.get()), grey).second, 200u * 150);
    }
    movie.reset();
    EXPECT_TRUE(AwaitFrames(2));  // the studio draws on
}

// The studio program with a collection of two Lumets sources: it loads the
// module from the build tree, creates the sources without a complaint, and
// shows them (the screenshot goes to docs/ with LUMETS_UPDATE_DOCS=1).
TEST(ObsSource, PlaysInTheStudioProgram) {
    ScratchDir dir;
    const std::string config = dir.File("obs-studio");
    const std::string item = R"(", "visible": true, "scale": {"x": 1.0, "y": 1.0}})";
    for (const auto& [name, text] : std::vector<std::pair<std::string, std::string>>{
             {"global.ini",
              "[General]\nFirstRun=true\n[Basic]\nProfile=L\nProfileDir=L\n"
              "SceneCollection=L\nSceneCollectionFile=L\n"},
             {"basic/profiles/L/basic.ini",
              "[General]\nName=L\n[Video]\nBaseCX=1280\nBaseCY=720\nOutputCX=1280\nOutputCY=720\n"},
             {"basic/scenes/L.json",
              R"({"current_scene": "S", "current_program_scene": "S", "scene_order": [{"name":
                  "S"}], "sources": [{"id": "scene", "name": "S", "settings": {"items": [{"name":
                  "Ticker)" +
                  item + R"(, {"name": "Chat)" + item + R"(]}}, {"id": "lumets_scene",
                  "name": "Ticker", "settings": {"scene_file": ")" +
                  kTicker + R"("}}, {"id":
                  "lumets_scene", "name": "Chat", "settings": {"scene_file": ")" +
                  kChat + R"("}}]})"}}) {
        std::filesystem::create_directories(
            std::filesystem::path(config + "/" + name).parent_path());
        ASSERT_TRUE(WriteBytes(config + "/" + name, Bytes(text.begin(), text.end())));
    }
    // The studio ignores SIGINT; the timeout ends it if the test cannot.
    ASSERT_TRUE(RunCommand(
        std::string(LUMETS_CHILD_ENV) + "; export XDG_CONFIG_HOME=" + dir.Path().string() +
        " OBS_PLUGINS_PATH=" + LUMETS_OBS_DIR + " OBS_PLUGINS_DATA_PATH=" + LUMETS_OBS_DATA +
        "; (timeout -s KILL 90 obs --collection L --profile L --scene S "
        "--disable-missing-files-check >/dev/null 2>&1 &)"));
    // A bounded wait for another process: until the log says both play and
    // the screen shows the ticker's plate (#102040 at 75 % on black).
    std::string log;
    const std::string shot = dir.File("shot.png");
    for (size_t i = 0, plate = 0; i < 100 && plate < 2000; ++i, os_sleep_ms(300)) {
        RunCommand("cat " + config + "/logs/*.txt > " + dir.File("log") + " 2>&1");
        const Bytes text = ReadBytes(dir.File("log"));
        log.assign(text.begin(), text.end());
        if (log.find("Chat: playing") != std::string::npos &&
            RunCommand("ffmpeg -v error -f x11grab -i $DISPLAY -frames:v 1 -y " + shot +
                       " && ffmpeg -v error -i " + shot + " -f rawvideo -pix_fmt rgb24 -y " + shot +
                       ".rgb")) {
            const Bytes screen = ReadBytes(shot + ".rgb");
            for (size_t p = 0; p + 2 < screen.size(); p += 3) {
                plate += std::abs(screen[p] - 12) + std::abs(screen[p + 1] - 24) +
                             std::abs(screen[p + 2] - 48) <=
                         6;
            }
        }
    }
    RunCommand("pkill -KILL -x obs");
    EXPECT_NE(log.find("lumets-obs.so"), std::string::npos);
    for (const std::string name : {"Ticker", "Chat"}) {
        EXPECT_NE(log.find("- source: '" + name + "' (lumets_scene)"), std::string::npos);
        EXPECT_NE(log.find("[lumets-obs] " + name + ": playing"), std::string::npos);
    }
    // Nothing else from the source: no warning, no error.
    EXPECT_EQ(log.find("[lumets-obs]", log.find("[lumets-obs]", log.find("[lumets-obs]") + 1) + 1),
              std::string::npos)
        << log;
    if (const char* update = std::getenv("LUMETS_UPDATE_DOCS"); update && *update == '1') {
        std::filesystem::copy_file(shot, LUMETS_SOURCE_DIR "/docs/obs-source.png",
                                   std::filesystem::copy_options::overwrite_existing);
    }
}

}  // namespace

int main(int argc, char** argv) {
    ::testing::InitGoogleTest(&argc, argv);
    CStudio studio;  // one for the suite
    if (!studio.Start(kW, kH)) {
        std::fprintf(stderr, "%s\n", studio.Error().c_str());
        return 1;
    }
    const int failed = RUN_ALL_TESTS();
    studio.Stop();
    return failed;
}

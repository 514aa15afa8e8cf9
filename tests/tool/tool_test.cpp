// The lumets program run as people run it: scene files rendered to MP4 and
// PNGs (read back with ffprobe and ffmpeg), a real ffmpeg pipeline through
// "lumets filter", and bad scene files and inputs.
#include <sys/wait.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "common/golden.h"
#include "common/scratch_files.h"
#include "image/image_loader.h"
#include "lumets_common/pixel_ops.h"

namespace lumets {
namespace {

using test::Quote;

constexpr int kW = 320;
constexpr int kH = 180;

// A small scene: a plate and an outlined text scrolling left, a drag.
const char* const kScene = R"({
  "size": [320, 180], "fps": 10, "duration": 1, "background": "#203040",
  "subtitles": [{
    "id": "one", "group": "g", "at": [20, 120],
    "items": [{
      "text": {"content": "Lumets 字幕 ✨",
               "style": {"fontSize": 20, "fillColor1": "#FFFFFF", "outline": true,
                         "outlineWidth": 2},
               "at": [200, 4], "clip": [0, 0, 280, 40], "direction": "left", "speed": 100,
               "wrap": true},
      "plate": {"color": "#804020", "opacity": 80, "spanClip": true},
      "plays": 0
    }]
  }],
  "actions": [{"at": 0.5, "do": "move", "id": "one", "to": [20, 20]}]
})";

class ToolTest : public ::testing::Test {
  protected:
    void SetUp() override { Write("scene.json", kScene); }
    std::string File(const std::string& name) const { return m_dir.File(name); }
    void Write(const std::string& name, const std::string& text) {
        std::ofstream(File(name)) << text;
    }
    // Runs a bash command line in the scratch folder, for two minutes at
    // most (a hang fails, as 124); its exit status, standard error kept in
    // Errors().
    int Run(const std::string& command) {
        Write("command.sh", "cd " + Quote(m_dir.File("")) + "\n" + command + "\n");
        const int status = std::system(
            ("timeout -k 5 120 bash " + Quote(File("command.sh")) + " 2>" + Quote(File("stderr")))
                .c_str());
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    std::string Errors() const {
        const std::vector<uint8_t> bytes = test::ReadBytes(File("stderr"));
        return std::string(bytes.begin(), bytes.end());
    }
    std::string Lumets(const std::string& arguments) const {
        return Quote(LUMETS_TOOL) + " " + arguments;
    }
    // Test-pattern frames as raw bgr24, as ffmpeg writes them.
    std::string Pattern(int frames) const {
        return "ffmpeg -nostdin -v error -f lavfi -i testsrc2=s=320x180:r=10 -frames:v " +
               std::to_string(frames) + " -f rawvideo -pix_fmt bgr24 -";
    }
    test::ScratchDir m_dir;
};

TEST_F(ToolTest, RendersVideoAndPicturesThatRepeatExactly) {
    ASSERT_EQ(Run(Lumets("render " + Quote(File("scene.json")) + " -o " + Quote(File("a.mp4")))), 0)
        << Errors();
    ASSERT_EQ(Run("ffprobe -v error -count_frames -show_entries "
                  "stream=width,height,r_frame_rate,nb_read_frames -of csv=p=0 " +
                  Quote(File("a.mp4")) + " > " + Quote(File("probe"))),
              0);
    const std::vector<uint8_t> probe = test::ReadBytes(File("probe"));
    EXPECT_EQ(std::string(probe.begin(), probe.end()), "320,180,10/1,10\n");

    // Virtual time: two runs give the same frames, and --at the same picture.
    for (const char* folder : {"run1", "run2"}) {
        ASSERT_EQ(Run(Lumets("render " + Quote(File("scene.json")) + " -o " + Quote(File(folder)))),
                  0)
            << Errors();
    }
    for (int i = 1; i <= 10; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "/frame_%05d.png", i);
        EXPECT_EQ(test::ReadBytes(File("run1") + name), test::ReadBytes(File("run2") + name)) << i;
    }
    ASSERT_EQ(Run(Lumets("render " + Quote(File("scene.json")) + " --at 0.7 -o " +
                         Quote(File("at.png")))),
              0);
    EXPECT_EQ(test::ReadBytes(File("at.png")), test::ReadBytes(File("run1") + "/frame_00008.png"));
    PixelBuffer picture;
    LoadImageFile(picture, m_dir.File16("at.png").c_str());
    EXPECT_TRUE(test::MatchesGolden(std::string(LUMETS_TEST_DATA_DIR) + "/scene_at_0.7.png",
                                    picture.View(), test::GoldenTolerance{12, 0.01}));
}

// The example scenes of the documentation render, and a scene movie goes
// through an OpenGL texture into its rectangle.
TEST_F(ToolTest, TheExampleScenesAndASceneMovieRender) {
    ASSERT_EQ(Run("ffmpeg -nostdin -v error -f lavfi -i color=c=red:s=64x36:r=10:d=1 -plays 0 "
                  "-f apng " +
                  Quote(File("movie.apng"))),
              0);
    Write("movie.json", R"({"size": [320, 180], "background": "#000000",
                            "scene": {"path": "movie.apng", "rect": [100, 50, 164, 86]}})");
    ASSERT_EQ(Run(Lumets("render " + Quote(File("movie.json")) + " --at 0.5 -o " +
                         Quote(File("movie.png")))),
              0)
        << Errors();
    PixelBuffer frame;
    LoadImageFile(frame, m_dir.File16("movie.png").c_str());
    const auto red = [&](int x, int y) {  // top-down; the picture is B, G, R bottom-up
        return frame.Data()[static_cast<size_t>(RowStride(kW, 24)) * (kH - 1 - y) + x * 3 + 2];
    };
    EXPECT_GT(red(132, 68), 240);
    EXPECT_EQ(red(90, 68) + red(132, 40), 0);
    for (const char* example : {"ticker", "chat"}) {
        EXPECT_EQ(Run(Lumets("render " LUMETS_SOURCE_DIR "/docs/examples/" + std::string(example) +
                             ".json --size 320x180 --duration 1 -o " +
                             Quote(File(std::string(example) + ".mp4")))),
                  0)
            << Errors();
    }
}

// ffmpeg | lumets filter | ffmpeg: every frame arrives, the subtitle shows
// where the scene puts it, and every pixel outside it is the input's.
TEST_F(ToolTest, FiltersRawVideoInAPipeline) {
    ASSERT_EQ(Run(Pattern(12) + " > " + Quote(File("in.raw"))), 0);
    for (const char* gpu : {"", " --gpu"}) {
        SCOPED_TRACE(gpu);
        ASSERT_EQ(Run(Pattern(12) + " | " +
                      Lumets("filter " + Quote(File("scene.json")) + " --size 320x180" + gpu) +
                      " | ffmpeg -nostdin -v error -f rawvideo -pix_fmt bgr24 -s 320x180 -r 10 "
                      "-i - -f rawvideo -pix_fmt bgr24 -y " +
                      Quote(File("out.raw"))),
                  0)
            << Errors();
        const std::vector<uint8_t> in = test::ReadBytes(File("in.raw"));
        const std::vector<uint8_t> out = test::ReadBytes(File("out.raw"));
        ASSERT_EQ(out.size(), in.size());
        ASSERT_EQ(in.size(), size_t{kW} * kH * 3 * 12);
        for (int f = 0; f < 12; ++f) {
            // Until 0.5 s the subtitle's clip is rows 120..160, then 20..60.
            const int top = f < 5 ? 120 : 20;
            int changedInside = 0;
            for (int y = 0; y < kH; ++y) {
                for (int x = 0; x < kW; ++x) {
                    const size_t i = ((size_t{static_cast<size_t>(f)} * kH + y) * kW + x) * 3;
                    const bool changed =
                        in[i] != out[i] || in[i + 1] != out[i + 1] || in[i + 2] != out[i + 2];
                    // The plate spans the clip, with its margins around it.
                    const bool inside = y >= top - 10 && y < top + 50 && x < 340;
                    ASSERT_TRUE(inside || !changed) << "frame " << f << " at " << x << "," << y;
                    changedInside += changed ? 1 : 0;
                }
            }
            EXPECT_GT(changedInside, 5000) << "frame " << f;
        }
    }
}

// Waits (up to 30 s) until the file matched by the glob holds at least the
// bytes given: a bounded wait for another process, not a timing.
std::string AwaitBytes(const std::string& glob, size_t bytes) {
    return "for i in $(seq 300); do [ \"$(cat " + glob + " 2>/dev/null | wc -c)\" -ge " +
           std::to_string(bytes) + " ] && break; sleep 0.1; done; ";
}

// Every way a run can go wrong ends with its own exit code and a message that
// says why, in bounded time, and leaves no broken file at an output's path.
TEST_F(ToolTest, BadScenesInputsAndOutputsFailCleanly) {
    constexpr size_t kFrame = size_t{kW} * kH * 3;
    Write("unknown.json", "{\n  \"subtitles\": [],\n  \"colour\": \"#FFFFFF\"\n}");
    const auto movieScene = [&](const std::string& name, const std::string& movie) {
        Write(name, R"({"subtitles": [{"id": "a", "items": [{"movie": {"path": ")" + movie +
                        R"("}}]}]})");
    };
    movieScene("missing.json", "gone.webm");
    movieScene("corrupt.json", "corrupt.webm");
    Write("corrupt.webm", "no movie at all, only these words");
    movieScene("folder.json", ".");
    const std::string scene = Quote(File("scene.json"));
    const std::string filter = Lumets("filter " + scene + " --size 320x180");
    const struct {
        std::string command;
        int status;
        std::string message;  // part of standard error
    } cases[] = {
        {Lumets("render unknown.json -o x.mp4"), 3, "unknown.json:3:3: unknown field \"colour\""},
        {Lumets("render missing.json -o x.mp4"), 3, "media file ./gone.webm: not found"},
        {Lumets("render corrupt.json -o x.mp4"), 3, "corrupt.webm: holds no movie"},
        {Lumets("render folder.json -o x.mp4"), 3, "media file ./.: is a folder, not a file"},
        {"mkfifo fifo; " + Lumets("render fifo -o x.mp4"), 3,
         "scene file fifo: is a named pipe (FIFO), not a file"},
        {Lumets("render " + scene + " --background fifo -o x.mp4"), 3,
         "--background fifo: is a named pipe"},
        {Lumets("render nothing.json -o x.mp4"), 3, "scene file nothing.json: not found"},
        // Numbers must be finite and in range: NaN passes every comparison.
        {Lumets("render " + scene + " --at nan -o x.png"), 2, "--at: must be a number"},
        {Lumets("render " + scene + " --fps nan -o x.mp4"), 2, "--fps: must be a number"},
        {Lumets("render " + scene + " --duration inf -o x.mp4"), 2, "--duration: must be"},
        {Lumets("filter " + scene + " --size 320x180 --fps nan"), 2, "--fps: must be"},
        {Lumets("render " + scene + " --size -5x10 -o x.mp4"), 2, "--size"},
        {Lumets("render " + scene + " --background '#fff' -o x.mp4"), 2,
         "malformed colour #fff: write it as #RRGGBB"},
        {Lumets("render " + scene + " -o x.png"), 2, "needs --at"},
        {Lumets("render " + scene + " -o x.avi"), 2, "cannot write .avi files"},
        {Lumets("frobnicate"), 2, "subcommand"},
        // Capitals and new folders are no trouble; other containers are written.
        {Lumets("render " + scene + " --at 0.5 -o X.PNG") + " && " +
             Lumets("render " + scene + " --duration 0.5 -o new/deep/x.mkv"),
         0, ""},
        // Two frames and a half: both whole frames come out, the rest is reported.
        {"head -c " + std::to_string(kFrame * 5 / 2) + " in.raw | " + filter + " > cut.raw", 4,
         "the input ended inside frame 3"},
        // A reader that goes away: a quiet end, not a crash.
        {Pattern(30) + " | " + filter + " | head -c 1000 > /dev/null; exit ${PIPESTATUS[1]}", 0,
         ""},
        {filter + " < in.raw > /dev/full", 1, "cannot write standard output: No space left"},
        // A stalled input: the frames so far have all arrived, whole, and a
        // signal ends the wait.
        {"mkfifo stall; " + filter + " < stall > stalled.raw & p=$!; exec 3> stall; head -c " +
             std::to_string(kFrame * 2) + " in.raw >&3; " + AwaitBytes("stalled.raw", kFrame * 2) +
             "kill -TERM $p; wait $p",
         143, "stopped by SIGTERM; 2 whole frames were written"},
        // A render stopped half-way finishes its video; one over a file-size
        // limit leaves nothing at its path.
        {Lumets("render " + scene + " --duration 86400 -o sig/a.mp4") + " & p=$!; " +
             AwaitBytes("sig/.a.mp4.*.part", 20000) + "kill -INT $p; wait $p",
         130, "stopped by SIGINT after"},
        {"ulimit -f 16; " + Lumets("render " + scene + " --duration 60 -o limit/a.mp4"), 1,
         "limit/a.mp4: cannot write: File too large"},
    };
    ASSERT_EQ(Run(Pattern(3) + " > in.raw"), 0);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.command);
        EXPECT_EQ(Run(c.command), c.status);
        EXPECT_NE(Errors().find(c.message), std::string::npos) << Errors();
    }
    EXPECT_EQ(test::ReadBytes(File("cut.raw")).size(), kFrame * 2);
    EXPECT_EQ(test::ReadBytes(File("stalled.raw")).size(), kFrame * 2);
    EXPECT_EQ(test::ReadBytes(File("X.PNG")).at(1), 'P');
    EXPECT_EQ(Run("for f in sig/a.mp4 new/deep/x.mkv; do ffprobe -v error -count_frames "
                  "-show_entries stream=nb_read_frames -of csv=p=0 $f; done > probe && "
                  "ls -A sig limit > files"),
              0);
    const std::vector<uint8_t> probe = test::ReadBytes(File("probe"));
    EXPECT_GT(std::atoi(std::string(probe.begin(), probe.end()).c_str()), 0);
    EXPECT_NE(std::string(probe.begin(), probe.end()).find("\n5\n"), std::string::npos);
    const std::vector<uint8_t> files = test::ReadBytes(File("files"));
    EXPECT_EQ(std::string(files.begin(), files.end()), "limit:\n\nsig:\na.mp4\n");
}

}  // namespace
}  // namespace lumets

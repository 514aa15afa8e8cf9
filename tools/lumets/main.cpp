// lumets: the command-line host of the library. It renders scene files to
// video or pictures, or composites a scene into raw video in a pipeline, in
// virtual time: frame n shows the scene n frame periods after its start,
// however fast or slow the machine is.
//
// Exit codes: 0 done; 1 an output could not be written or OpenGL is missing;
// 2 a bad command line; 3 a bad scene file or media file; 4 the input ended
// inside a frame (the frames before it were all written); 128 + n stopped by
// signal n (SIGHUP, SIGINT, SIGTERM) with the frames so far finished.
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>
#include <CLI/CLI.hpp>

#include <cerrno>
#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "control_server.h"
#include "files.h"
#include "lumets_common/pixel_ops.h"
#include "scene_file.h"
#include "scene_limits.h"
#include "scene_player.h"
#include "signals.h"
#include "video_io.h"

namespace lumets::tool {

using namespace lumets::playback;

namespace {

constexpr int kOutputFailed = 1;
constexpr int kBadCommandLine = 2;
constexpr int kBadScene = 3;
constexpr int kTruncatedInput = 4;

// The library writes its log records to standard output. The tool keeps the
// real standard output for itself (frames, messages) and points the library's
// at standard error with --log, or nowhere.
std::FILE* g_out = stdout;

void TakeStandardOutput(bool log) {
    const int own = dup(STDOUT_FILENO);
    const int records = log ? dup(STDERR_FILENO) : open("/dev/null", O_WRONLY | O_CLOEXEC);
    std::FILE* out = own >= 0 ? fdopen(own, "wb") : nullptr;
    if (out == nullptr || records < 0) {
        return;  // keep everything where it was
    }
    std::fflush(stdout);
    dup2(records, STDOUT_FILENO);
    close(records);
    g_out = out;
}

struct Size {
    int32_t width = 0;
    int32_t height = 0;
};

// "WxH", each side within the scene format's frame sides.
std::string CheckSize(const std::string& text) {
    using limits::kFrameSide;
    int32_t w = 0;
    int32_t h = 0;
    char tail = 0;
    if (std::sscanf(text.c_str(), "%dx%d%c", &w, &h, &tail) != 2 || !kFrameSide.Admits(w) ||
        !kFrameSide.Admits(h)) {
        return "must be WIDTHxHEIGHT, each " + std::to_string(static_cast<int>(kFrameSide.min)) +
               " to " + std::to_string(static_cast<int>(kFrameSide.max));
    }
    return {};
}

// A number from lo to hi. CLI11's own range check lets NaN through (every
// comparison with it is false), and NaN frames never end.
CLI::Validator Between(double lo, double hi) {
    std::ostringstream range;
    range << lo << " to " << hi;
    const std::string words = range.str();
    return CLI::Validator(
        [lo, hi, words](std::string& text) -> std::string {
            char* end = nullptr;
            const double value = std::strtod(text.c_str(), &end);
            if (text.empty() || *end != '\0' || !std::isfinite(value) || value < lo || value > hi) {
                return "must be a number from " + words + ", not " + text;
            }
            return {};
        },
        "NUMBER from " + words);
}

Size ParseSize(const std::string& text) {
    Size size;
    std::sscanf(text.c_str(), "%dx%d", &size.width, &size.height);
    return size;
}

// Draws a progress bar on standard error when it is a terminal.
class Progress {
  public:
    explicit Progress(uint64_t total) : m_total(total), m_show(isatty(STDERR_FILENO) == 1) {}
    ~Progress() {
        if (m_show) {
            std::fputc('\n', stderr);
        }
    }
    void Step(uint64_t done) {
        if (!m_show || m_total == 0) {
            return;
        }
        const int filled = static_cast<int>(40 * done / m_total);
        std::fprintf(stderr, "\r[%.*s%.*s] %3d%% %llu/%llu frames", filled,
                     "########################################", 40 - filled,
                     "........................................",
                     static_cast<int>(100 * done / m_total), static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(m_total));
    }

  private:
    uint64_t m_total;
    bool m_show;
};

// Fills the frame with the scene's background, or the one given on the
// command line.
class BackgroundPainter {
  public:
    bool Open(const Background& background, int32_t width, int32_t height, std::string* error) {
        m_width = width;
        m_height = height;
        m_colour = background.colour;
        if (background.kind != Background::Kind::Colour) {
            m_backdrop = CBackdrop::Open(background.path, width, height, error);
            return m_backdrop != nullptr;
        }
        return true;
    }
    void Paint(double seconds, uint8_t* frame) {
        if (m_backdrop) {
            m_backdrop->FrameAt(seconds, frame);
            return;
        }
        const uint8_t bgr[3] = {static_cast<uint8_t>(m_colour), static_cast<uint8_t>(m_colour >> 8),
                                static_cast<uint8_t>(m_colour >> 16)};
        for (int32_t y = 0; y < m_height; ++y) {
            uint8_t* row = frame + FrameStride(m_width) * static_cast<size_t>(y);
            for (int32_t x = 0; x < m_width; ++x) {
                std::memcpy(row + 3 * x, bgr, 3);
            }
        }
    }

  private:
    int32_t m_width = 0;
    int32_t m_height = 0;
    uint32_t m_colour = 0;
    std::unique_ptr<CBackdrop> m_backdrop;
};

struct RenderOptions {
    std::string scene;
    std::string output;
    std::optional<double> at;
    std::string size;
    std::optional<double> fps;
    std::optional<double> duration;
    std::string background;
    bool gpu = false;
};

std::optional<Scene> Load(const std::string& path) {
    try {
        return LoadScene(path, WhyNotUsable);
    } catch (const SceneError& error) {
        std::fprintf(stderr, "lumets: %s\n", error.what());
        return std::nullopt;
    }
}

// The scene's background, or --background: a colour or a picture or video.
// 0, or the exit code with the reason given.
int ApplyBackground(Scene& scene, const std::string& value) {
    if (value.empty()) {
        return 0;
    }
    if (ParseColour(value, &scene.background.colour)) {
        scene.background.kind = Background::Kind::Colour;
        return 0;
    }
    if (value[0] == '#') {
        std::fprintf(stderr,
                     "lumets: --background: malformed colour %s: write it as #RRGGBB, six hex "
                     "digits (#1c2a3a, say)\n",
                     value.c_str());
        return kBadCommandLine;
    }
    const std::string why = WhyNotUsable(value, MediaUse::Picture);
    if (!why.empty()) {
        std::fprintf(stderr, "lumets: --background %s: %s\n", value.c_str(), why.c_str());
        return kBadScene;
    }
    scene.background.kind = Background::Kind::Video;  // a still picture works the same
    scene.background.path = value;
    return 0;
}

// 128 + the signal's number, as a shell reports a process the signal ended.
int StoppedBy(int signal) {
    return 128 + signal;
}

enum class Output { Video, Picture, Folder };

int Render(const RenderOptions& options, const std::string& pngBeside = {}, double pngAt = -1) {
    namespace fs = std::filesystem;
    const std::string& out = options.output;
    const std::string extension = LowerExtension(out);
    const VideoFormat* format = FindVideoFormat(extension);
    std::error_code error;
    Output kind = Output::Folder;
    if (format != nullptr) {
        kind = Output::Video;
    } else if (extension == ".png") {
        kind = Output::Picture;
    } else if (!extension.empty() && !fs::is_directory(out, error)) {
        std::fprintf(stderr,
                     "lumets: -o %s: cannot write %s files; write a video in %s, a .png with "
                     "--at, or numbered PNGs into a folder (a path without an extension)\n",
                     out.c_str(), extension.c_str(), VideoFormatList().c_str());
        return kBadCommandLine;
    }
    if (kind == Output::Picture && !options.at) {
        std::fprintf(stderr, "lumets: a single PNG needs --at SECONDS\n");
        return kBadCommandLine;
    }

    std::optional<Scene> scene = Load(options.scene);
    if (!scene) {
        return kBadScene;
    }
    if (const int rc = ApplyBackground(*scene, options.background); rc != 0) {
        return rc;
    }
    const Size size =
        options.size.empty() ? Size{scene->width, scene->height} : ParseSize(options.size);
    const double fps = options.fps.value_or(scene->fps);
    const double duration = options.duration.value_or(scene->duration);
    if (kind == Output::Video && (size.width % 2 != 0 || size.height % 2 != 0)) {
        std::fprintf(stderr, "lumets: a video needs an even width and height, not %dx%d\n",
                     size.width, size.height);
        return kBadCommandLine;
    }
    const uint64_t frames =
        kind == Output::Picture
            ? static_cast<uint64_t>(std::llround(*options.at * fps)) + 1
            : std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(duration * fps)));
    if (kind == Output::Folder && !fs::is_directory(out, error) &&
        (fs::create_directories(out, error), error)) {
        std::fprintf(stderr, "lumets: cannot make the folder %s: %s\n", out.c_str(),
                     error.message().c_str());
        return kOutputFailed;
    }

    // The video is written beside its path and moved there once finished.
    CPendingFile videoFile;
    std::string why;
    if (kind == Output::Video && !videoFile.Create(out, &why)) {
        std::fprintf(stderr, "lumets: %s: %s\n", out.c_str(), why.c_str());
        return kOutputFailed;
    }
    int rc = 0;
    uint64_t done = 0;
    {
        BackgroundPainter background;
        if (!background.Open(scene->background, size.width, size.height, &why)) {
            std::fprintf(stderr, "lumets: %s: %s\n", scene->background.path.c_str(), why.c_str());
            return kBadScene;
        }
        CScenePlayer player(*scene, options.gpu, size.width, size.height);
        CVideoWriter video;
        if (!player.Ok()) {
            std::fprintf(stderr, "lumets: %s\n", player.Error().c_str());
            rc = kOutputFailed;
        } else if (kind == Output::Video &&
                   !video.Open(videoFile.TemporaryPath(), *format, size.width, size.height, fps)) {
            std::fprintf(stderr, "lumets: %s: %s\n", out.c_str(), video.Error().c_str());
            rc = kOutputFailed;
        }
        const uint64_t pngIndex =
            pngAt >= 0 ? static_cast<uint64_t>(std::llround(pngAt * fps)) : frames;
        std::vector<uint8_t> frame(FrameBytes(size.width, size.height));
        Progress progress(frames);
        for (; rc == 0 && done < frames && CSignals::Caught() == 0; ++done) {
            background.Paint(static_cast<double>(done) / fps, frame.data());
            player.AdvanceTo(FrameTimeMs(done, fps));
            player.Draw(PackedFrame24(frame.data(), size.width, size.height));
            std::string file;
            if (kind == Output::Picture && done + 1 == frames) {
                file = out;
            } else if (kind == Output::Folder) {
                char name[32];
                std::snprintf(name, sizeof name, "frame_%05llu.png",
                              static_cast<unsigned long long>(done + 1));
                file = (fs::path(out) / name).string();
            }
            if (done == pngIndex) {
                file = pngBeside;
            }
            if (kind == Output::Video && !video.Write(frame.data())) {
                std::fprintf(stderr, "lumets: %s: %s\n", out.c_str(), video.Error().c_str());
                rc = kOutputFailed;
            }
            if (!file.empty() && !WritePng(file, frame.data(), size.width, size.height, &why)) {
                std::fprintf(stderr, "lumets: %s: %s\n", file.c_str(), why.c_str());
                rc = kOutputFailed;
            }
            progress.Step(done + 1);
        }
        // Stopped by a signal, a video still gets its end: the frames so far
        // make a file that plays.
        if (kind == Output::Video && rc == 0 && done > 0 &&
            (!video.Close() || !videoFile.Commit(&why))) {
            std::fprintf(stderr, "lumets: %s: %s\n", out.c_str(),
                         video.Error().empty() ? why.c_str() : video.Error().c_str());
            rc = kOutputFailed;
        }
    }
    if (rc != 0) {
        if (kind == Output::Video) {
            std::fprintf(stderr, "lumets: nothing was written to %s\n", out.c_str());
        }
        return rc;
    }
    if (const int signal = CSignals::Caught(); signal != 0) {
        if (done == 0 || kind == Output::Picture) {
            std::fprintf(stderr, "lumets: stopped by %s; nothing was written to %s\n",
                         CSignals::Name(signal), out.c_str());
        } else {
            std::fprintf(stderr, "lumets: stopped by %s after %llu of %llu frames; %s holds them\n",
                         CSignals::Name(signal), static_cast<unsigned long long>(done),
                         static_cast<unsigned long long>(frames), out.c_str());
        }
        return StoppedBy(signal);
    }
    if (pngBeside.empty()) {
        std::fprintf(
            g_out, "wrote %s: %s at %dx%d, %g fps\n", out.c_str(),
            kind == Output::Picture ? "one picture" : (std::to_string(frames) + " frames").c_str(),
            size.width, size.height, fps);
    }
    return 0;
}

// The raw layouts the filter reads, by ffmpeg's names.
struct PixelFormatName {
    const char* name;
    int32_t format;  // lumets_format
    size_t bytes;
};

const PixelFormatName* FindPixelFormat(const std::string& name) {
    static constexpr PixelFormatName kFormats[] = {
        {"bgr24", LUMETS_FORMAT_BGR24, 3}, {"rgb24", LUMETS_FORMAT_RGB24, 3},
        {"bgra", LUMETS_FORMAT_BGRA, 4},   {"rgba", LUMETS_FORMAT_RGBA, 4},
        {"bgr0", LUMETS_FORMAT_BGRX, 4},   {"rgb0", LUMETS_FORMAT_RGBX, 4}};
    for (const PixelFormatName& format : kFormats) {
        if (name == format.name) {
            return &format;
        }
    }
    return &kFormats[0];
}

struct FilterOptions {
    std::string scene;
    std::string size;
    std::string pixelFormat = "bgr24";
    std::optional<double> fps;
    bool gpu = false;
    bool stats = false;
    bool control = false;
    uint16_t port = 0;
    std::string listen = "127.0.0.1";
    std::string tokenFile;
};

// The live-control server of a filter run, when asked for; it stops with the
// run. Null, with the reason printed, when it cannot start.
std::unique_ptr<CControlServer> StartControl(const FilterOptions& options, int* rc) {
    ControlOptions control;
    control.address = options.listen;
    control.port = options.port;
    control.baseDir = SceneFolder(options.scene);
    if (!options.tokenFile.empty()) {
        std::ifstream in(options.tokenFile);
        std::getline(in, control.token);
        if (control.token.size() < 16) {
            std::fprintf(stderr, "lumets: %s: needs a token of at least 16 characters\n",
                         options.tokenFile.c_str());
            *rc = kBadCommandLine;
            return nullptr;
        }
    }
    auto server = std::make_unique<CControlServer>(std::move(control));
    std::string why;
    if (!server->Start(&why)) {
        std::fprintf(stderr, "lumets: %s\n", why.c_str());
        *rc = kOutputFailed;
        return nullptr;
    }
    std::fprintf(stderr, "lumets: control server on %s\nlumets: control page: %s\n",
                 server->Url().c_str(), server->PageUrl().c_str());
    return server;
}

// Frames are read and written (WriteAll) without the C library's buffers, so
// that a frame leaves as soon as it is composited and a stalled input or a
// signal is seen at once.
enum class Transfer { Done, Ended, Failed, Stopped };

// Reads size bytes; *got says how many arrived (short when the input ends).
// A signal caught while waiting for input stops the read.
Transfer ReadAll(int fd, uint8_t* data, size_t size, size_t* got) {
    *got = 0;
    while (*got < size) {
        pollfd wait[2] = {{fd, POLLIN, 0}, {CSignals::Fd(), POLLIN, 0}};
        if (CSignals::Caught() != 0) {
            return Transfer::Stopped;
        }
        if (poll(wait, CSignals::Fd() >= 0 ? 2 : 1, -1) < 0 && errno != EINTR) {
            return Transfer::Failed;
        }
        if (CSignals::Caught() != 0) {
            return Transfer::Stopped;
        }
        if ((wait[0].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) == 0) {
            continue;
        }
        const ssize_t n = read(fd, data + *got, size - *got);
        if (n == 0) {
            return Transfer::Ended;
        }
        if (n < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return Transfer::Failed;
        }
        *got += static_cast<size_t>(n);
    }
    return Transfer::Done;
}

int Filter(const FilterOptions& options) {
    std::optional<Scene> scene = Load(options.scene);
    if (!scene) {
        return kBadScene;
    }
    const Size size = ParseSize(options.size);
    const double fps = options.fps.value_or(scene->fps);
    const int in = STDIN_FILENO;
    const int out = fileno(g_out);

    // The frames are composited where they are read, in their own layout;
    // only --gpu takes the library's bottom-up rows and needs a copy.
    const PixelFormatName* format = FindPixelFormat(options.pixelFormat);
    if (options.gpu && format->format != LUMETS_FORMAT_BGR24) {
        std::fprintf(stderr, "lumets: --gpu composites bgr24 frames only, not %s\n", format->name);
        return kBadCommandLine;
    }
    const size_t rowBytes = static_cast<size_t>(size.width) * format->bytes;
    const size_t rawBytes = rowBytes * static_cast<size_t>(size.height);
    std::vector<uint8_t> raw(rawBytes);
    std::vector<uint8_t> frame(options.gpu ? FrameBytes(size.width, size.height) : 0);
    const lumets_frame host{raw.data(),     size.width, size.height, static_cast<int64_t>(rowBytes),
                            format->format, 0};
    using Clock = std::chrono::steady_clock;
    Clock::duration inLibrary{};
    const Clock::time_point start = Clock::now();
    uint64_t frames = 0;
    int rc = 0;
    {
        CScenePlayer player(*scene, options.gpu, size.width, size.height);
        if (!player.Ok()) {
            std::fprintf(stderr, "lumets: %s\n", player.Error().c_str());
            rc = kOutputFailed;
        }
        std::unique_ptr<CControlServer> control;
        if (rc == 0 && options.control) {
            control = StartControl(options, &rc);
        }
        while (rc == 0) {
            size_t got = 0;
            const Transfer read = ReadAll(in, raw.data(), rawBytes, &got);
            const int readError = errno;
            if (read == Transfer::Stopped) {
                std::fprintf(stderr, "lumets: stopped by %s; %llu whole frames were written\n",
                             CSignals::Name(CSignals::Caught()),
                             static_cast<unsigned long long>(frames));
                rc = StoppedBy(CSignals::Caught());
                break;
            }
            if (read == Transfer::Failed) {
                std::fprintf(stderr, "lumets: cannot read standard input: %s\n",
                             ErrnoText(readError).c_str());
                rc = kOutputFailed;
                break;
            }
            if (got == 0) {
                break;
            }
            if (got < rawBytes) {
                std::fprintf(stderr,
                             "lumets: the input ended inside frame %llu (%zu of %zu bytes); "
                             "%llu whole frames were written\n",
                             static_cast<unsigned long long>(frames + 1), got, rawBytes,
                             static_cast<unsigned long long>(frames));
                rc = kTruncatedInput;
                break;
            }
            const Clock::time_point before = Clock::now();
            player.AdvanceTo(FrameTimeMs(frames, fps));
            if (control) {
                control->TakeActions(player, frames);
            }
            if (options.gpu) {
                // Top-down rows in, the library's bottom-up padded rows for it.
                for (int32_t y = 0; y < size.height; ++y) {
                    std::memcpy(frame.data() + FrameStride(size.width) * (size.height - 1 - y),
                                raw.data() + rowBytes * y, rowBytes);
                }
                player.Draw(PackedFrame24(frame.data(), size.width, size.height));
                for (int32_t y = 0; y < size.height; ++y) {
                    std::memcpy(raw.data() + rowBytes * y,
                                frame.data() + FrameStride(size.width) * (size.height - 1 - y),
                                rowBytes);
                }
            } else {
                player.Draw(host);
            }
            if (control) {
                control->Publish(player, frames, host);
            }
            inLibrary += Clock::now() - before;
            // A frame begun is finished even when a signal comes.
            const int writeError = WriteAll(out, raw.data(), rawBytes);
            if (writeError == EPIPE) {
                break;  // the reader has gone: nothing more to do
            }
            if (writeError != 0) {
                std::fprintf(stderr,
                             "lumets: cannot write standard output: %s; %llu whole frames were "
                             "written\n",
                             ErrnoText(writeError).c_str(),
                             static_cast<unsigned long long>(frames));
                rc = kOutputFailed;
                break;
            }
            ++frames;
        }
    }
    if (options.stats) {
        const double total = std::chrono::duration<double>(Clock::now() - start).count();
        const double library = std::chrono::duration<double>(inLibrary).count();
        std::fprintf(stderr,
                     "lumets: %llu frames in %.2f s: %.1f frames per second; %.0f %% of the "
                     "time in the library, %.0f %% reading, converting and writing frames\n",
                     static_cast<unsigned long long>(frames), total,
                     total > 0 ? static_cast<double>(frames) / total : 0.0,
                     total > 0 ? 100 * library / total : 0.0,
                     total > 0 ? 100 * (total - library) / total : 0.0);
    }
    return rc;
}

}  // namespace
}  // namespace lumets::tool

int main(int argc, char** argv) {
    using namespace lumets::tool;
    CLI::App app{"lumets: animated overlays on video, from scene files"};
    app.require_subcommand(1);
    app.footer(
        "Exit codes: 0 done, 1 output failed or no OpenGL, 2 bad command line, 3 bad scene "
        "or media file, 4 input ended inside a frame, 129/130/143 stopped by SIGHUP/SIGINT/"
        "SIGTERM (a video keeps the frames so far).");

    std::string demoDir = "out";
    bool demoGpu = false;
    CLI::App* demo =
        app.add_subcommand("demo",
                           "Render the built-in default scene (10 s at 30 fps) to DIR/demo.mp4 and "
                           "DIR/demo.png");
    demo->add_option("-o,--output", demoDir, "Folder to write into")->capture_default_str();
    demo->add_flag("--gpu", demoGpu, "Composite the subtitles with OpenGL");

    RenderOptions render;
    CLI::App* renderCommand =
        app.add_subcommand("render", "Render a scene file to an MP4, a folder of PNGs or a PNG");
    renderCommand->add_option("scene", render.scene, "Scene file (JSON)")->required();
    renderCommand
        ->add_option("-o,--output", render.output,
                     "A video (.mp4, .mkv, .mov, .webm), OUT.png with --at, or a folder for "
                     "numbered PNGs")
        ->required();
    renderCommand->add_option("--at", render.at, "With a PNG output: the time to show, seconds")
        ->check(Between(limits::kActionTime.min, limits::kActionTime.max));
    renderCommand->add_option("--size", render.size, "Output size WxH (default: the scene's)")
        ->check(CheckSize);
    renderCommand->add_option("--fps", render.fps, "Frames per second (default: the scene's)")
        ->check(Between(limits::kFps.min, limits::kFps.max));
    renderCommand->add_option("--duration", render.duration, "Seconds (default: the scene's)")
        ->check(Between(limits::kDuration.min, limits::kDuration.max));
    renderCommand->add_option("--background", render.background,
                              "A colour #RRGGBB, or an image or video file as the backdrop");
    renderCommand->add_flag("--gpu", render.gpu, "Composite the subtitles with OpenGL");

    FilterOptions filter;
    CLI::App* filterCommand = app.add_subcommand(
        "filter", "Composite a scene into raw frames from standard input to standard output");
    filterCommand->add_option("scene", filter.scene, "Scene file (JSON)")->required();
    filterCommand->add_option("--size", filter.size, "Frame size WxH")
        ->required()
        ->check(CheckSize);
    filterCommand->add_option("--fps", filter.fps, "Frames per second of the input")
        ->check(Between(limits::kFps.min, limits::kFps.max));
    filterCommand
        ->add_option("--pix-fmt", filter.pixelFormat,
                     "The frames' layout, as ffmpeg names it: bgr24, rgb24, bgra, rgba, bgr0, rgb0")
        ->check(CLI::IsMember({"bgr24", "rgb24", "bgra", "rgba", "bgr0", "rgb0"}))
        ->capture_default_str();
    filterCommand->add_flag("--gpu", filter.gpu, "Composite with OpenGL, reading each frame back");
    filterCommand->add_flag("--control", filter.control,
                            "Serve live control over HTTP (printed on standard error)");
    filterCommand->add_option("--port", filter.port, "With --control: the port (0: any free one)")
        ->capture_default_str();
    filterCommand
        ->add_option("--listen", filter.listen,
                     "With --control: the address to listen on (127.0.0.1: this machine only)")
        ->capture_default_str();
    filterCommand->add_option("--token-file", filter.tokenFile,
                              "With --control: read the token from the first line of this file "
                              "(default: a random one, printed)");
    filterCommand->add_flag("--stats", filter.stats,
                            "Report frames per second and the library's share of the time");

    bool log = false;
    app.add_flag("--log", log, "Show the library's log records on standard error");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& e) {
        return app.exit(e);
    } catch (const CLI::CallForAllHelp& e) {
        return app.exit(e);
    } catch (const CLI::ParseError& e) {
        app.exit(e);
        return 2;
    }
    TakeStandardOutput(log);
    av_log_set_level(AV_LOG_ERROR);
    if (!CSignals::Install()) {
        std::fprintf(stderr, "lumets: cannot set up signal handling: %s\n",
                     ErrnoText(errno).c_str());
        return kOutputFailed;
    }

    if (demo->parsed()) {
        RenderOptions options;
        options.scene = std::string(LUMETS_DATA_DIR) + "/demo/scene.json";
        options.output = (std::filesystem::path(demoDir) / "demo.mp4").string();
        options.gpu = demoGpu;
        const std::string still = (std::filesystem::path(demoDir) / "demo.png").string();
        const int rc = Render(options, still, 7.0);
        if (rc == 0) {
            std::fprintf(g_out, "wrote %s and %s\n", options.output.c_str(), still.c_str());
        }
        return rc;
    }
    if (renderCommand->parsed()) {
        return Render(render);
    }
    return Filter(filter);
}

// lumetsoverlay under GstHarness and in gst-launch-1.0 pipelines: every frame
// is checked against the scene library's own render of the same scene, at the
// same time, over the same picture, in the same layout.
#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <lumets/lumets_scene.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "common/scratch_files.h"
#include "gst_handles.h"

namespace lumets::gst {
namespace {

using Bytes = std::vector<uint8_t>;
using HarnessPtr = CHandle<GstHarness, gst_harness_teardown>;
using ScenePtr = CHandle<lumets_scene, lumets_scene_close>;
#define TICKER LUMETS_SOURCE_DIR "/docs/examples/ticker.json"
#define CHAT LUMETS_SOURCE_DIR "/docs/examples/chat.json"
const std::string kTicker = TICKER;
const std::string kChat = CHAT;

ScenePtr OpenScene(const std::string& path) {
    lumets_scene* scene = nullptr;
    EXPECT_EQ(lumets_scene_open_file(path.c_str(), &scene), LUMETS_OK) << lumets_last_error();
    return ScenePtr(scene);
}

GstVideoInfo Info(const std::string& caps) {
    GstVideoInfo info;
    gst_video_info_from_caps(&info, GstCapsPtr(gst_caps_from_string(caps.c_str())).get());
    return info;
}

// The library's render at ms over backdrop, in the layout the caps give.
Bytes Reference(lumets_scene* scene, int64_t ms, const GstVideoInfo& info, Bytes backdrop) {
    static const std::vector<std::string> kOrder = {"BGR", "RGB", "BGRx", "BGRA", "RGBx", "RGBA"};
    const auto at =
        std::find(kOrder.begin(), kOrder.end(), gst_video_format_to_string(info.finfo->format));
    const int32_t format = LUMETS_FORMAT_BGR24 + static_cast<int32_t>(at - kOrder.begin());
    const lumets_frame frame{backdrop.data(), info.width, info.height, info.stride[0], format, 0};
    EXPECT_EQ(lumets_scene_render(scene, ms, &frame), LUMETS_OK) << lumets_last_error();
    return backdrop;
}

// A picture that differs at every byte, so that a misplaced channel shows.
Bytes Backdrop(const GstVideoInfo& info) {
    Bytes bytes(GST_VIDEO_INFO_SIZE(&info));
    for (size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 1021);
    }
    return bytes;
}

// Pushes backdrop at pts (none: no timestamp) and gives back what came out;
// a read-only buffer (a second owner holds it) is left as it was.
Bytes Push(GstHarness* h, const Bytes& backdrop, std::optional<int64_t> ptsMs,
           bool readOnly = false) {
    GstBuffer* in = gst_buffer_new_allocate(nullptr, backdrop.size(), nullptr);
    gst_buffer_fill(in, 0, backdrop.data(), backdrop.size());
    GST_BUFFER_PTS(in) = ptsMs ? *ptsMs * GST_MSECOND : GST_CLOCK_TIME_NONE;
    const GstBufferPtr kept(readOnly ? gst_buffer_ref(in) : nullptr);
    EXPECT_EQ(gst_harness_push(h, in), GST_FLOW_OK);
    EXPECT_TRUE(!kept || gst_buffer_memcmp(kept.get(), 0, backdrop.data(), backdrop.size()) == 0);
    const GstBufferPtr out(gst_harness_pull(h));
    Bytes bytes(out ? gst_buffer_get_size(out.get()) : 0);
    gst_buffer_extract(out.get(), 0, bytes.data(), bytes.size());
    return bytes;
}

// Each message of the kind, a line each: an error's or warning's text, else
// its structure.
std::string Messages(GstBus* bus, GstMessageType type) {
    std::string texts;
    while (const GstMessagePtr message{gst_bus_pop_filtered(bus, type)}) {
        GError* raw = nullptr;
        if (type != GST_MESSAGE_ELEMENT) {
            (type == GST_MESSAGE_ERROR ? gst_message_parse_error : gst_message_parse_warning)(
                message.get(), &raw, nullptr);
        }
        const GErrorPtr error(raw);
        const GCharPtr text(gst_structure_to_string(gst_message_get_structure(message.get())));
        texts += (error ? error->message : text.get()) + std::string("\n");
    }
    return texts;
}

// A string property the element never leaves null.
std::string Property(GstElement* element, const char* name) {
    gchar* value = nullptr;
    g_object_get(element, name, &value, nullptr);
    return GCharPtr(value).get();
}

// A shell command run in folder in, with the build's plugin in reach (and,
// under AddressSanitizer, its runtime preloaded into the uninstrumented tools).
int Launch(const std::string& command, const std::string& in) {
    return std::system((LUMETS_CHILD_ENV " cd " + in + " && " + command).c_str());
}

TEST(Overlay, EveryLayoutSizeAndTimeGivesTheLibrarysPixels) {
    enum Before { kNothing, kFlush, kSeek, kReadOnly };
    const std::tuple<const char*, Before, std::optional<int64_t>, int64_t> kSteps[] = {
        {"BGR,width=322,height=181", kNothing, 40, 40},  // rows padded to 4 bytes
        {"RGB,width=640,height=360", kNothing, {}, 40},  // no timestamp: time stands
        {"BGRx,width=1280,height=720", kNothing, 5000, 5000},
        {"RGBx,width=201,height=113", kNothing, 5400, 5400},
        {"BGRA,width=320,height=180", kFlush, 400, 400},  // time goes back
        {"RGBA,width=640,height=360", kSeek, 10300, 300},
        {"RGBA,width=640,height=360", kReadOnly, 10900, 900},
        {"RGBA,width=640,height=360", kNothing, 210900, 60900},  // a jump: a minute at most
    };
    const ScenePtr reference = OpenScene(kTicker);
    const HarnessPtr h(gst_harness_new_parse(("lumetsoverlay scene=" + kTicker).c_str()));
    std::string caps;
    for (const auto& [format, before, pts, sceneMs] : kSteps) {
        SCOPED_TRACE(std::string(format) + " at " + std::to_string(sceneMs) + " ms");
        // New caps come with a new segment from the harness.
        if (caps != "video/x-raw,framerate=30/1,format=" + std::string(format)) {
            caps = "video/x-raw,framerate=30/1,format=" + std::string(format);
            gst_harness_set_src_caps_str(h.get(), caps.c_str());
        }
        if (before == kFlush || before == kSeek) {
            GstSegment segment;
            gst_segment_init(&segment, GST_FORMAT_TIME);
            segment.start = segment.time = before == kSeek ? 10 * GST_SECOND : 0;
            gst_harness_push_event(h.get(), gst_event_new_flush_start());
            gst_harness_push_event(h.get(), gst_event_new_flush_stop(TRUE));
            gst_harness_push_event(h.get(), gst_event_new_segment(&segment));
        }
        const GstVideoInfo info = Info(caps);
        const Bytes backdrop = Backdrop(info);
        const Bytes out = Push(h.get(), backdrop, pts, before == kReadOnly);
        EXPECT_NE(out, backdrop) << "the ticker shows";
        EXPECT_EQ(out, Reference(reference.get(), sceneMs, info, backdrop));
    }
}

TEST(Overlay, ActionsSubtitleMessagesSceneSwitchesAndLiveControl) {
    const HarnessPtr h(
        gst_harness_new_parse(("lumetsoverlay control=auto scene=" + kTicker).c_str()));
    const std::string caps = "video/x-raw,format=BGRx,width=320,height=180";
    gst_harness_set_src_caps_str(h.get(), caps.c_str());
    const GstObjectPtr<GstElement> overlay(gst_harness_find_element(h.get(), "lumetsoverlay"));
    const GstObjectPtr<GstBus> bus(gst_bus_new());
    gst_element_set_bus(h->element, bus.get());
    const GstVideoInfo info = Info(caps);
    const Bytes backdrop = Backdrop(info);
    const auto apply = [&](const char* json) {  // "ok", or why not
        gboolean ok = FALSE;
        g_signal_emit_by_name(overlay.get(), "apply-action", json, &ok);
        return ok != FALSE ? "ok" : Property(overlay.get(), "last-error");
    };
    Push(h.get(), backdrop, 0);
    EXPECT_EQ(apply(R"({"do": "add", "subtitle": {"id": "m1", "group": "chat", "at": [40, 60],
          "items": [{"text": {"content": "Hi!", "clip": [0, 0, 600, 48]}, "plays": 0}]}})"),
              "ok");
    EXPECT_EQ(apply(R"({"do": "remove", "id": )").rfind("action:1:", 0), 0u);
    Push(h.get(), backdrop, 40);
    EXPECT_EQ(apply(R"({"do": "remove", "id": "m1"})"), "ok");
    Push(h.get(), backdrop, 80);
    EXPECT_EQ(
        Messages(bus.get(), GST_MESSAGE_ELEMENT),
        "lumets-subtitle, id=(string)ticker, group=(string)news, state=(string)start, "
        "running-time=(guint64)0;\nlumets-subtitle, id=(string)m1, group=(string)chat, "
        "state=(string)start, running-time=(guint64)40000000;\nlumets-subtitle, "
        "id=(string)m1, group=(string)chat, state=(string)end, running-time=(guint64)80000000;\n");
    EXPECT_EQ(Property(overlay.get(), "control-url").rfind("http://127.0.0.1:", 0), 0u);
    // A new scene comes in at the next buffer and plays from its start there;
    // one that does not read leaves it playing, with a warning.
    const ScenePtr chat = OpenScene(kChat);
    g_object_set(overlay.get(), "scene", kChat.c_str(), nullptr);
    EXPECT_EQ(Push(h.get(), backdrop, 3000), Reference(chat.get(), 0, info, backdrop));
    g_object_set(overlay.get(), "scene", "/no/such/scene.json", nullptr);
    EXPECT_EQ(Push(h.get(), backdrop, 3600), Reference(chat.get(), 600, info, backdrop));
    EXPECT_EQ(Messages(bus.get(), GST_MESSAGE_WARNING),
              "scene file /no/such/scene.json: not found; the scene before plays on\n");
}

TEST(Overlay, BadPropertiesFailTheStateChangeWithAMessageNamingTheProblem) {
    const std::tuple<const char*, const char*, const char*> kCases[] = {
        {"scene", "/no/such/scene.json", "scene file /no/such/scene.json: not found"},
        {"scene-string", "{\"size\": [1, 1]}", "scene-string:1:10: \"size\" must be"},
        {"control", "localhost:http", "control \"localhost:http\": must be"}};
    for (const auto& [property, value, message] : kCases) {
        const GstObjectPtr<GstElement> element(
            GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("lumetsoverlay", nullptr))));
        const GstObjectPtr<GstBus> bus(gst_bus_new());
        gst_element_set_bus(element.get(), bus.get());
        gst_util_set_object_arg(G_OBJECT(element.get()), property, value);
        EXPECT_EQ(gst_element_set_state(element.get(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
        EXPECT_EQ(Messages(bus.get(), GST_MESSAGE_ERROR).find(message), 0u) << value;
        gst_element_set_state(element.get(), GST_STATE_NULL);
    }
}

TEST(Pipeline, InspectsCleanlyAndTwoOverlaysAfterATeeEachDrawTheirOwnScene) {
    test::ScratchDir dir;
#define RGBA "video/x-raw,format=RGBA,width=320,height=180,framerate=30/1"
    ASSERT_EQ(Launch("G_DEBUG=fatal-warnings gst-inspect-1.0 lumetsoverlay >inspect 2>&1 && "
                     "! grep WARN inspect && for w in 'scene ' scene-string 'control ' control-url "
                     "silent last-error '\"apply-action\"' 'SINK template' 'SRC template'; do "
                     "grep -q \"$w\" inspect || exit 1; done && "
                     "gst-launch-1.0 -q videotestsrc num-buffers=12 pattern=ball ! " RGBA " ! tee "
                     "name=t t. ! queue ! filesink location=plain t. ! queue ! lumetsoverlay "
                     "scene=" TICKER " ! filesink location=ticker t. ! queue ! lumetsoverlay "
                     "scene=" CHAT " ! filesink location=chat",
                     dir.Path()),
              0);
    const GstVideoInfo info = Info(RGBA);
    const size_t size = GST_VIDEO_INFO_SIZE(&info);
    const Bytes plain = test::ReadBytes(dir.File("plain"));
    ASSERT_EQ(plain.size(), 12 * size);
    for (const std::string& scene : {kTicker, kChat}) {
        const ScenePtr reference = OpenScene(scene);
        const Bytes out = test::ReadBytes(dir.File(scene == kTicker ? "ticker" : "chat"));
        ASSERT_EQ(out.size(), plain.size());
        for (size_t i = 0; i < 12; ++i) {
            const Bytes expected = Reference(reference.get(), std::llround(i * 1000.0 / 30), info,
                                             Bytes(&plain[i * size], &plain[i * size] + size));
            EXPECT_TRUE(std::equal(expected.begin(), expected.end(), &out[i * size])) << scene << i;
        }
    }
}

TEST(Pipeline, EncodedFrame45IsTheProgramsRenderAtOneAndAHalfSeconds) {
    if (std::string(LUMETS_TOOL).empty()) {
        GTEST_SKIP() << "built without the lumets program";
    }
    test::ScratchDir dir;
    ASSERT_EQ(
        Launch("gst-launch-1.0 -q videotestsrc pattern=smpte75 num-buffers=90 ! "
               "video/x-raw,format=BGRx,width=1280,height=720,framerate=30/1 ! "
               "lumetsoverlay scene=" TICKER " ! videoconvert ! x264enc ! mp4mux ! "
               "filesink location=out.mp4 && ffprobe -v error -count_frames -show_entries "
               "stream=nb_read_frames -of csv=p=0 out.mp4 >n && gst-launch-1.0 -q videotestsrc "
               "pattern=smpte75 num-buffers=1 ! video/x-raw,format=RGB,width=1280,height=720 ! "
               "pngenc ! filesink location=bars.png && ffmpeg -v error -i out.mp4 -vf "
               "'select=eq(n\\,45)' -frames:v 1 -f rawvideo -pix_fmt rgb24 45.rgb && "
               "for at in 1.5 1; do " LUMETS_TOOL " render " TICKER " --at $at --background "
               "bars.png -o $at.png >/dev/null && ffmpeg -v error -i $at.png -f rawvideo "
               "-pix_fmt rgb24 $at.rgb; done",
               dir.Path()),
        0);
    EXPECT_EQ(test::ReadBytes(dir.File("n")), Bytes({'9', '0', '\n'})) << "frames";
    // The ticker's band: at 1.5 s within the codec's loss, at 1 s far off.
    const Bytes encoded = test::ReadBytes(dir.File("45.rgb"));
    const auto band = [&](const std::string& at) {
        const Bytes rendered = test::ReadBytes(dir.File(at + ".rgb"));
        const size_t end = std::min({encoded.size(), rendered.size(), size_t{710 * 3840}});
        double sum = 0;
        for (size_t i = 650 * 3840; i < end; ++i) {
            sum += std::abs(encoded[i] - rendered[i]);
        }
        return sum / (60 * 3840);
    };
    EXPECT_LT(band("1.5"), 3.0);
    EXPECT_GT(band("1"), 3 * band("1.5"));
}

}  // namespace
}  // namespace lumets::gst

int main(int argc, char** argv) {
    gst_init(&argc, &argv);
    ::testing::InitGoogleTest(&argc, argv);
    const lumets::gst::GstObjectPtr<GstPlugin> plugin(
        gst_plugin_load_file(LUMETS_GST_PLUGIN, nullptr));
    return plugin ? RUN_ALL_TESTS() : 1;
}

// lumetsoverlay: a GstVideoFilter that composites a Lumets scene into each
// buffer in place, the scene's clock driven by the buffers' running time.
// The GObject side only: COverlayEngine plays the scene. GStreamer calls in
// from C, so every function it calls catches whatever the C++ side throws.
#include <gst/gst.h>
#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

#include <atomic>
#include <cstdio>
#include <exception>
#include <mutex>
#include <string>

#include "gst_handles.h"
#include "overlay_engine.h"

GST_DEBUG_CATEGORY_STATIC(lumets_overlay_debug);
#define GST_CAT_DEFAULT lumets_overlay_debug

namespace {

using lumets::playback::COverlayEngine;
using lumets::playback::Failure;
using lumets::playback::FrameReport;
using lumets::playback::SceneSource;

// What an element owns beside its GObject fields.
struct State {
    COverlayEngine engine;
    std::atomic<bool> silent{false};
    std::mutex lock;        // guards lastError
    std::string lastError;  // of the last apply-action that failed
};

}  // namespace

struct GstLumetsOverlay {
    GstVideoFilter parent;
    State* state;  // made in init, ended in finalize
};

struct GstLumetsOverlayClass {
    GstVideoFilterClass parent_class;
};

G_DEFINE_TYPE(GstLumetsOverlay, gst_lumets_overlay, GST_TYPE_VIDEO_FILTER)

namespace {

#define LUMETS_OVERLAY(object) \
    (G_TYPE_CHECK_INSTANCE_CAST((object), gst_lumets_overlay_get_type(), GstLumetsOverlay))

enum Property {
    kPropScene = 1,
    kPropSceneString,
    kPropControl,
    kPropControlUrl,
    kPropSilent,
    kPropLastError,
};

// The layouts the scene library draws into, any size and rate.
#define LUMETS_OVERLAY_CAPS GST_VIDEO_CAPS_MAKE("{ BGR, RGB, BGRx, BGRA, RGBx, RGBA }")
GstStaticPadTemplate kSinkTemplate = GST_STATIC_PAD_TEMPLATE("sink", GST_PAD_SINK, GST_PAD_ALWAYS,
                                                             GST_STATIC_CAPS(LUMETS_OVERLAY_CAPS));
GstStaticPadTemplate kSrcTemplate = GST_STATIC_PAD_TEMPLATE("src", GST_PAD_SRC, GST_PAD_ALWAYS,
                                                            GST_STATIC_CAPS(LUMETS_OVERLAY_CAPS));

int32_t LumetsFormat(GstVideoFormat format) {
    switch (format) {
        case GST_VIDEO_FORMAT_BGR:
            return LUMETS_FORMAT_BGR24;
        case GST_VIDEO_FORMAT_RGB:
            return LUMETS_FORMAT_RGB24;
        case GST_VIDEO_FORMAT_BGRx:
            return LUMETS_FORMAT_BGRX;
        case GST_VIDEO_FORMAT_BGRA:
            return LUMETS_FORMAT_BGRA;
        case GST_VIDEO_FORMAT_RGBx:
            return LUMETS_FORMAT_RGBX;
        case GST_VIDEO_FORMAT_RGBA:
            return LUMETS_FORMAT_RGBA;
        default:
            return 0;  // refused by the frame check: caps admit no other
    }
}

// Runs body; what it throws becomes an error on the bus and `failed`.
template <typename Body, typename Result>
Result Guarded(GstLumetsOverlay* self, Result failed, Body&& body) {
    try {
        return body();
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(self, CORE, FAILED, ("lumetsoverlay: %s", error.what()), (nullptr));
    } catch (...) {
        GST_ELEMENT_ERROR(self, CORE, FAILED, ("lumetsoverlay: an unknown failure"), (nullptr));
    }
    return failed;
}

void PostFailure(GstLumetsOverlay* self, const Failure& failure) {
    const char* text = failure.message.c_str();
    switch (failure.kind) {
        case Failure::Kind::NotFound:
            GST_ELEMENT_ERROR(self, RESOURCE, NOT_FOUND, ("%s", text), (nullptr));
            break;
        case Failure::Kind::Unreadable:
            GST_ELEMENT_ERROR(self, RESOURCE, OPEN_READ, ("%s", text), (nullptr));
            break;
        case Failure::Kind::Malformed:
        case Failure::Kind::Control:
            GST_ELEMENT_ERROR(self, RESOURCE, SETTINGS, ("%s", text), (nullptr));
            break;
        case Failure::Kind::Player:
        case Failure::Kind::None:
            GST_ELEMENT_ERROR(self, LIBRARY, INIT, ("%s", text), (nullptr));
            break;
    }
}

void PostElementMessage(GstLumetsOverlay* self, GstStructure* structure) {
    gst_element_post_message(GST_ELEMENT(self),
                             gst_message_new_element(GST_OBJECT(self), structure));
}

void SetSource(GstLumetsOverlay* self, bool inlineText, const gchar* value) {
    State& s = *self->state;
    const SceneSource now = s.engine.Source();
    const std::string text = value != nullptr ? value : "";
    // Clearing one property leaves a scene the other one gave.
    if (text.empty() && now.inlineText != inlineText) {
        return;
    }
    s.engine.SetSource({inlineText, text});
    gst_base_transform_set_passthrough(GST_BASE_TRANSFORM(self), text.empty());
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* spec) {
    GstLumetsOverlay* self = LUMETS_OVERLAY(object);
    Guarded(self, 0, [&] {
        switch (id) {
            case kPropScene:
            case kPropSceneString:
                SetSource(self, id == kPropSceneString, g_value_get_string(value));
                break;
            case kPropControl:
                self->state->engine.SetControl(
                    g_value_get_string(value) != nullptr ? g_value_get_string(value) : "");
                break;
            case kPropSilent:
                self->state->silent = g_value_get_boolean(value) != FALSE;
                break;
            default:
                G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        }
        return 0;
    });
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* spec) {
    GstLumetsOverlay* self = LUMETS_OVERLAY(object);
    State& s = *self->state;
    Guarded(self, 0, [&] {
        const SceneSource source = s.engine.Source();
        switch (id) {
            case kPropScene:
            case kPropSceneString:
                g_value_set_string(
                    value, (id == kPropSceneString) == source.inlineText && !source.value.empty()
                               ? source.value.c_str()
                               : nullptr);
                break;
            case kPropControl:
                g_value_set_string(value, s.engine.Control().c_str());
                break;
            case kPropControlUrl:
                g_value_set_string(value, s.engine.ControlPageUrl().c_str());
                break;
            case kPropSilent:
                g_value_set_boolean(value, s.silent ? TRUE : FALSE);
                break;
            case kPropLastError: {
                const std::lock_guard<std::mutex> lock(s.lock);
                g_value_set_string(value, s.lastError.c_str());
                break;
            }
            default:
                G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, spec);
        }
        return 0;
    });
}

gboolean ApplyAction(GstLumetsOverlay* self, const gchar* json) {
    State& s = *self->state;
    bool ok = false;
    try {
        std::string error = "apply-action needs a JSON string";
        ok = json != nullptr && s.engine.Apply(json, &error);
        GST_INFO_OBJECT(self, "apply-action: %s", ok ? "applied" : error.c_str());
        const std::lock_guard<std::mutex> lock(s.lock);
        s.lastError = ok ? std::string() : std::move(error);
    } catch (const std::exception& failure) {
        GST_WARNING_OBJECT(self, "apply-action: %s", failure.what());
        ok = false;
    } catch (...) {
        ok = false;
    }
    return ok ? TRUE : FALSE;
}

gboolean Start(GstBaseTransform* transform) {
    GstLumetsOverlay* self = LUMETS_OVERLAY(transform);
    State& s = *self->state;
    return Guarded(self, FALSE, [&]() -> gboolean {
        const Failure failure = s.engine.Start();
        if (failure.kind != Failure::Kind::None) {
            PostFailure(self, failure);
            return FALSE;
        }
        gst_base_transform_set_passthrough(transform, s.engine.Source().value.empty());
        if (const std::string page = s.engine.ControlPageUrl(); !page.empty()) {
            const std::string url = s.engine.ControlUrl();
            const lumets::gst::GCharPtr name(gst_object_get_name(GST_OBJECT(self)));
            GST_INFO_OBJECT(self, "control server on %s", url.c_str());
            if (!s.silent) {
                std::fprintf(stderr, "%s: control server on %s\n%s: control page: %s\n", name.get(),
                             url.c_str(), name.get(), page.c_str());
            }
            PostElementMessage(
                self, gst_structure_new("lumets-control", "url", G_TYPE_STRING, url.c_str(),
                                        "page-url", G_TYPE_STRING, page.c_str(), nullptr));
        }
        return TRUE;
    });
}

gboolean Stop(GstBaseTransform* transform) {
    GstLumetsOverlay* self = LUMETS_OVERLAY(transform);
    return Guarded(self, FALSE, [&]() -> gboolean {
        self->state->engine.Stop();
        return TRUE;
    });
}

GstFlowReturn TransformFrameIp(GstVideoFilter* filter, GstVideoFrame* frame) {
    GstLumetsOverlay* self = LUMETS_OVERLAY(filter);
    State& s = *self->state;
    return Guarded(self, GST_FLOW_ERROR, [&] {
        const lumets_frame target{GST_VIDEO_FRAME_PLANE_DATA(frame, 0),
                                  GST_VIDEO_FRAME_WIDTH(frame),
                                  GST_VIDEO_FRAME_HEIGHT(frame),
                                  GST_VIDEO_FRAME_PLANE_STRIDE(frame, 0),
                                  LumetsFormat(GST_VIDEO_FRAME_FORMAT(frame)),
                                  0};
        const GstSegment& segment = GST_BASE_TRANSFORM(filter)->segment;
        const GstClockTime running =
            segment.format == GST_FORMAT_TIME
                ? gst_segment_to_running_time(&segment, GST_FORMAT_TIME,
                                              GST_BUFFER_PTS(frame->buffer))
                : GST_CLOCK_TIME_NONE;
        std::optional<uint64_t> ms;
        if (GST_CLOCK_TIME_IS_VALID(running)) {
            ms = (running + GST_MSECOND / 2) / GST_MSECOND;
        }
        const bool silent = s.silent;
        const FrameReport report = s.engine.Frame(ms, target, !silent);
        if (!report.warning.empty()) {
            GST_ELEMENT_WARNING(self, RESOURCE, SETTINGS,
                                ("%s; the scene before plays on", report.warning.c_str()),
                                (nullptr));
        }
        for (const lumets::playback::SubtitleChange& change : report.changes) {
            PostElementMessage(
                self, gst_structure_new("lumets-subtitle", "id", G_TYPE_STRING, change.id.c_str(),
                                        "group", G_TYPE_STRING, change.group.c_str(), "state",
                                        G_TYPE_STRING, change.started ? "start" : "end",
                                        "running-time", G_TYPE_UINT64, running, nullptr));
        }
        return GST_FLOW_OK;
    });
}

void Finalize(GObject* object) {
    GstLumetsOverlay* self = LUMETS_OVERLAY(object);
    delete self->state;  // ends the player and joins the control server's threads
    self->state = nullptr;
    G_OBJECT_CLASS(gst_lumets_overlay_parent_class)->finalize(object);
}

}  // namespace

static void gst_lumets_overlay_init(GstLumetsOverlay* self) {
    try {
        self->state = new State();
    } catch (...) {
        g_error("lumetsoverlay: out of memory");
    }
}

static void gst_lumets_overlay_class_init(GstLumetsOverlayClass* klass) {
    GST_DEBUG_CATEGORY_INIT(lumets_overlay_debug, "lumetsoverlay", 0, "Lumets scene overlay");
    GObjectClass* object = G_OBJECT_CLASS(klass);
    object->set_property = SetProperty;
    object->get_property = GetProperty;
    object->finalize = Finalize;

    const auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const auto playing = static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_PLAYING);
    const auto readable = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        object, kPropScene,
        g_param_spec_string("scene", "Scene file",
                            "The scene file (JSON) to play. Set while playing, the new scene "
                            "starts at the next buffer; one that does not read leaves the scene "
                            "before playing, with a warning on the bus",
                            nullptr, playing));
    g_object_class_install_property(
        object, kPropSceneString,
        g_param_spec_string("scene-string", "Scene text",
                            "The scene as inline JSON, instead of a file; relative media paths "
                            "are taken from the current folder. The last of scene and "
                            "scene-string set is played",
                            nullptr, playing));
    g_object_class_install_property(
        object, kPropControl,
        g_param_spec_string("control", "Live control",
                            "Serve live control over HTTP while the element runs: \"auto\" (a "
                            "free port on 127.0.0.1), \"PORT\" or \"ADDRESS:PORT\"; the page's "
                            "address goes out as a lumets-control element message",
                            nullptr, static_cast<GParamFlags>(flags | GST_PARAM_MUTABLE_READY)));
    g_object_class_install_property(
        object, kPropControlUrl,
        g_param_spec_string("control-url", "Control page",
                            "The control page's address with its token, while the control "
                            "server runs",
                            nullptr, readable));
    g_object_class_install_property(
        object, kPropSilent,
        g_param_spec_boolean("silent", "Silent",
                             "Post no lumets-subtitle messages and print no control address", FALSE,
                             playing));
    g_object_class_install_property(
        object, kPropLastError,
        g_param_spec_string("last-error", "Last error",
                            "Why the last apply-action returned FALSE; empty after one that "
                            "succeeded",
                            nullptr, readable));

    // gboolean apply-action(const gchar* json): one action of the scene
    // file's vocabulary, without "at"; FALSE with the reason in last-error.
    g_signal_new_class_handler("apply-action", G_TYPE_FROM_CLASS(klass),
                               static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION),
                               G_CALLBACK(ApplyAction), nullptr, nullptr, nullptr, G_TYPE_BOOLEAN,
                               1, G_TYPE_STRING);

    GstElementClass* element = GST_ELEMENT_CLASS(klass);
    gst_element_class_set_static_metadata(
        element, "Lumets scene overlay", "Filter/Effect/Video",
        "Composites a Lumets scene (subtitles, banners, a scene movie) into video in place, "
        "on the buffers' running time; apply-action and live control change it while it plays",
        "Lumets developers");
    gst_element_class_add_static_pad_template(element, &kSinkTemplate);
    gst_element_class_add_static_pad_template(element, &kSrcTemplate);

    GstBaseTransformClass* transform = GST_BASE_TRANSFORM_CLASS(klass);
    transform->start = Start;
    transform->stop = Stop;
    GST_VIDEO_FILTER_CLASS(klass)->transform_frame_ip = TransformFrameIp;
}

GST_ELEMENT_REGISTER_DEFINE(lumetsoverlay, "lumetsoverlay", GST_RANK_NONE,
                            gst_lumets_overlay_get_type());

static gboolean plugin_init(GstPlugin* plugin) {
    return GST_ELEMENT_REGISTER(lumetsoverlay, plugin);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, lumets,
                  "Lumets overlays: scene files composited into video", plugin_init, LUMETS_VERSION,
                  "Proprietary", "Lumets", "Unknown package origin")

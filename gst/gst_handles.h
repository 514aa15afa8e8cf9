// Owning handles for the GLib and GStreamer objects the plugin's code and
// its tests hold: each drops its one reference once.
#pragma once

#include <gst/gst.h>

#include "lumets_platform/c_handle.h"

namespace lumets::gst {

template <typename T>
using GstObjectPtr = CHandle<T, gst_object_unref>;
using GstMessagePtr = CHandle<GstMessage, gst_message_unref>;
using GstBufferPtr = CHandle<GstBuffer, gst_buffer_unref>;
using GstCapsPtr = CHandle<GstCaps, gst_caps_unref>;
using GCharPtr = CHandle<gchar, g_free>;
using GErrorPtr = CHandle<GError, g_error_free>;

}  // namespace lumets::gst

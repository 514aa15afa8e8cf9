#include "lumets_common/ffmpeg_quiet.h"

#include <cstdarg>
#include <mutex>

#include "lumets_platform/quiet.h"

extern "C" {
#include <libavutil/log.h>
}

namespace lumets {
namespace {

void FilterLog(void* context, int level, const char* format, va_list arguments) {
    if (platform::QuietDepth() > 0) {
        return;
    }
    av_log_default_callback(context, level, format, arguments);
}

}  // namespace

CQuietFfmpeg::CQuietFfmpeg() {
    static std::once_flag installed;
    std::call_once(installed, [] { av_log_set_callback(FilterLog); });
    ++platform::QuietDepth();
}

CQuietFfmpeg::~CQuietFfmpeg() {
    --platform::QuietDepth();
}

}  // namespace lumets

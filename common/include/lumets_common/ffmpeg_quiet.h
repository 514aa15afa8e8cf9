// Keeps FFmpeg's messages about the library's own decoding off the host's
// standard error, without touching the process-wide log level.
//
// The first scope installs a log callback that drops what FFmpeg says on a
// thread inside a CQuietFfmpeg scope and passes everything else to FFmpeg's
// default callback, so the host's own FFmpeg use logs as before. A host that
// installs a callback of its own after that sees everything, ours included.
#pragma once

namespace lumets {

class CQuietFfmpeg {
  public:
    CQuietFfmpeg();
    ~CQuietFfmpeg();
    CQuietFfmpeg(const CQuietFfmpeg&) = delete;
    CQuietFfmpeg& operator=(const CQuietFfmpeg&) = delete;
};

}  // namespace lumets

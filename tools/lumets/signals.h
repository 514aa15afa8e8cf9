// SIGINT, SIGTERM and SIGHUP end the program at a point it chooses: a render
// finishes the file it has begun, a filter the frame it is writing. The first
// such signal is noted and wakes whoever polls Fd(); a second one ends the
// program at once, as it would have without this.
#pragma once

namespace lumets::tool {

class CSignals {
  public:
    // Installs the handlers and ignores SIGPIPE and SIGXFSZ, so that a reader
    // that goes away or a file-size limit turns into a failed write with its
    // reason rather than a silent death. False when the handlers cannot be set.
    static bool Install();
    // The first of those signals received, or 0.
    static int Caught();
    // Readable once a signal has been caught; for poll beside other descriptors.
    static int Fd();
    // "SIGINT", "SIGTERM", "SIGHUP".
    static const char* Name(int signal);
};

}  // namespace lumets::tool

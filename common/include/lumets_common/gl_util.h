// Small OpenGL helpers shared by the library and the host library: the
// one error check every call goes through, and the test for a current context.
#pragma once

#include <epoxy/gl.h>

namespace lumets {

// True when no GL error is pending. Otherwise drains every pending error, names
// the call and the errors on the debug output, and returns false.
bool GlOk(const char* call);

// Discards errors left pending by the caller, so that the next GlOk reports
// only our own calls.
void GlDrainErrors();

// True when an OpenGL context is current on the calling thread. Without one,
// every other GL call of this library is skipped: the dispatch library cannot
// resolve entry points without a context and would abort the process.
bool GlHasCurrentContext();

}  // namespace lumets

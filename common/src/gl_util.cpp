#include "lumets_common/gl_util.h"

#include <cstdio>

#include "lumets_platform/debug_output.h"

namespace lumets {
namespace {

const char* ErrorName(GLenum error) {
    switch (error) {
        case GL_INVALID_ENUM:
            return "GL_INVALID_ENUM";
        case GL_INVALID_VALUE:
            return "GL_INVALID_VALUE";
        case GL_INVALID_OPERATION:
            return "GL_INVALID_OPERATION";
        case GL_INVALID_FRAMEBUFFER_OPERATION:
            return "GL_INVALID_FRAMEBUFFER_OPERATION";
        case GL_OUT_OF_MEMORY:
            return "GL_OUT_OF_MEMORY";
        default:
            return "unknown GL error";
    }
}

// A context that was lost keeps answering GL_CONTEXT_LOST; never loop forever.
constexpr int kMaxDrainedErrors = 16;

}  // namespace

bool GlOk(const char* call) {
    bool ok = true;
    for (int i = 0; i < kMaxDrainedErrors; ++i) {
        const GLenum error = glGetError();
        if (error == GL_NO_ERROR) {
            break;
        }
        ok = false;
        char line[160];
        std::snprintf(line, sizeof line, "lumets_host: %s failed: %s (0x%04X)\n", call,
                      ErrorName(error), error);
        platform::DebugOutput(line);
    }
    return ok;
}

void GlDrainErrors() {
    for (int i = 0; i < kMaxDrainedErrors && glGetError() != GL_NO_ERROR; ++i) {
    }
}

bool GlHasCurrentContext() {
    // glGetString is core since OpenGL 1.0, so the dispatcher resolves it without
    // a context; it answers null when none is current.
    return glGetString(GL_VERSION) != nullptr;
}

}  // namespace lumets

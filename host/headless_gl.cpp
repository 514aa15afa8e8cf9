#include "lumets/host/headless_gl.h"

#include <epoxy/egl.h>
#include <epoxy/gl.h>

#include "lumets_common/gl_owners.h"

namespace lumets::host {
namespace {

std::vector<uint8_t> ReadFramebuffer(GLuint framebuffer, int32_t width, int32_t height) {
    if (width <= 0 || height <= 0) {
        return {};
    }
    std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4u);
    gl::CStateGuard guard;
    guard.BindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
    guard.BindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    guard.PixelStore(GL_PACK_ALIGNMENT, 1);
    glReadPixels(0, 0, width, height, GL_BGRA, GL_UNSIGNED_BYTE, pixels.data());
    return pixels;
}

}  // namespace

CHeadlessGl::~CHeadlessGl() {
    Close();
}

bool CHeadlessGl::OpenDisplay() {
    if (!epoxy_has_egl_extension(EGL_NO_DISPLAY, "EGL_MESA_platform_surfaceless")) {
        m_error = "EGL_MESA_platform_surfaceless is not available";
        return false;
    }
    EGLDisplay display =
        eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    if (display == EGL_NO_DISPLAY || !eglInitialize(display, nullptr, nullptr)) {
        m_error = "no surfaceless EGL display could be opened";
        return false;
    }
    m_display = display;
    return true;
}

bool CHeadlessGl::CreateContext() {
    if (m_display == nullptr) {
        m_error = "no EGL display is open";
        return false;
    }
    if (!eglBindAPI(EGL_OPENGL_API)) {
        m_error = "eglBindAPI(EGL_OPENGL_API) failed";
        return false;
    }
    const EGLint configAttributes[] = {EGL_RENDERABLE_TYPE,
                                       EGL_OPENGL_BIT,
                                       EGL_RED_SIZE,
                                       8,
                                       EGL_GREEN_SIZE,
                                       8,
                                       EGL_BLUE_SIZE,
                                       8,
                                       EGL_ALPHA_SIZE,
                                       8,
                                       EGL_NONE};
    EGLConfig config = nullptr;
    EGLint count = 0;
    if (!eglChooseConfig(m_display, configAttributes, &config, 1, &count) || count < 1) {
        config = nullptr;  // EGL_KHR_no_config_context
    }
    const EGLint contextAttributes[] = {EGL_CONTEXT_MAJOR_VERSION,
                                        3,
                                        EGL_CONTEXT_MINOR_VERSION,
                                        3,
                                        EGL_CONTEXT_OPENGL_PROFILE_MASK,
                                        EGL_CONTEXT_OPENGL_CORE_PROFILE_BIT,
                                        EGL_NONE};
    EGLContext context = eglCreateContext(m_display, config, EGL_NO_CONTEXT, contextAttributes);
    if (context == EGL_NO_CONTEXT) {
        m_error = "eglCreateContext for OpenGL 3.3 core failed";
        return false;
    }
    m_context = context;
    if (!MakeCurrent()) {
        m_error = "eglMakeCurrent without a surface failed";
        return false;
    }
    return true;
}

bool CHeadlessGl::MakeCurrent() {
    return m_context != nullptr &&
           eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, m_context) == EGL_TRUE;
}

void CHeadlessGl::ReleaseCurrent() {
    if (m_display != nullptr) {
        eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }
}

bool CHeadlessGl::CreateFramebuffer(int32_t width, int32_t height) {
    DeleteFramebuffer();
    if (width <= 0 || height <= 0) {
        return false;
    }
    // The names live in the public class as plain names; the owners' kinds
    // make and delete them.
    m_colour = gl::TextureKind::Make();
    {
        gl::CStateGuard guard;
        guard.BindTexture(m_colour);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     nullptr);
    }
    m_framebuffer = gl::FramebufferKind::Make();
    // Left bound: this context draws into it from now on.
    glBindFramebuffer(GL_FRAMEBUFFER, m_framebuffer);
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, m_colour, 0);
    if (glCheckFramebufferStatus(GL_FRAMEBUFFER) != GL_FRAMEBUFFER_COMPLETE) {
        return false;
    }
    m_width = width;
    m_height = height;
    glViewport(0, 0, width, height);
    Clear(0, 0, 0, 0);
    return glGetError() == GL_NO_ERROR;
}

void CHeadlessGl::Clear(uint8_t b, uint8_t g, uint8_t r, uint8_t a) {
    glClearColor(r / 255.f, g / 255.f, b / 255.f, a / 255.f);
    glClear(GL_COLOR_BUFFER_BIT);
}

std::vector<uint8_t> CHeadlessGl::ReadPixels() const {
    return ReadFramebuffer(m_framebuffer, m_width, m_height);
}

uint32_t CHeadlessGl::PixelAt(int32_t x, int32_t y) const {
    uint8_t p[4] = {};
    glPixelStorei(GL_PACK_ALIGNMENT, 1);
    glReadPixels(x, y, 1, 1, GL_BGRA, GL_UNSIGNED_BYTE, p);
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
           (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

std::vector<uint8_t> CHeadlessGl::ReadBackTexture(GLuint texture, int32_t width, int32_t height) {
    const gl::CFramebuffer framebuffer = gl::CFramebuffer::Make();
    gl::CStateGuard guard;
    guard.BindFramebuffer(GL_FRAMEBUFFER, framebuffer.Get());
    glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
    return ReadFramebuffer(framebuffer.Get(), width, height);
}

void CHeadlessGl::Close() {
    if (m_display == nullptr) {
        return;
    }
    if (m_context != nullptr) {
        MakeCurrent();
        DeleteFramebuffer();
        ReleaseCurrent();
        eglDestroyContext(m_display, m_context);
        m_context = nullptr;
    }
    // The display stays initialised: Mesa shares it within the process and
    // terminating it under other contexts would pull them down.
    m_display = nullptr;
}

void CHeadlessGl::DeleteFramebuffer() {
    if (m_framebuffer != 0) {
        glBindFramebuffer(GL_FRAMEBUFFER, 0);
        gl::FramebufferKind::Delete(m_framebuffer);
        m_framebuffer = 0;
    }
    if (m_colour != 0) {
        gl::TextureKind::Delete(m_colour);
        m_colour = 0;
    }
}

}  // namespace lumets::host

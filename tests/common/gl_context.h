// A headless OpenGL 3.3 core context for tests: Mesa's surfaceless EGL
// platform (software rasteriser where there is no GPU), an FBO with one colour
// texture, and read-back helpers. Rows read back are in OpenGL's order: row 0
// is the bottom row. Programs without GoogleTest (benchmarks) define
// LUMETS_GL_CONTEXT_NO_GTEST and get the context without the fixture.
#pragma once

#include <epoxy/egl.h>
#include <epoxy/gl.h>
#ifndef LUMETS_GL_CONTEXT_NO_GTEST
#include <gtest/gtest.h>
#endif

#include <cstdint>
#include <string>
#include <vector>

namespace lumets::test {

class GlContext {
  public:
    GlContext() = default;
    ~GlContext() { Close(); }
    GlContext(const GlContext&) = delete;
    GlContext& operator=(const GlContext&) = delete;

    // Opens the display. False (with the reason in Error()) when there is no
    // EGL display at all: the caller skips its GL tests then.
    bool OpenDisplay() {
        if (!epoxy_has_egl_extension(EGL_NO_DISPLAY, "EGL_MESA_platform_surfaceless")) {
            m_error = "EGL_MESA_platform_surfaceless is not available";
            return false;
        }
        m_display =
            eglGetPlatformDisplayEXT(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
        if (m_display == EGL_NO_DISPLAY || !eglInitialize(m_display, nullptr, nullptr)) {
            m_display = EGL_NO_DISPLAY;
            m_error = "no surfaceless EGL display could be opened";
            return false;
        }
        return true;
    }

    // Makes an OpenGL 3.3 core context current on the calling thread. False with
    // the reason in Error() (a failure: a display without GL 3.3 is a broken setup).
    bool CreateContext() {
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
        m_context = eglCreateContext(m_display, config, EGL_NO_CONTEXT, contextAttributes);
        if (m_context == EGL_NO_CONTEXT) {
            m_error = "eglCreateContext for OpenGL 3.3 core failed";
            return false;
        }
        if (!MakeCurrent()) {
            m_error = "eglMakeCurrent without a surface failed";
            return false;
        }
        return true;
    }

    bool MakeCurrent() {
        return eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, m_context) == EGL_TRUE;
    }
    void ReleaseCurrent() {
        eglMakeCurrent(m_display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }

    // Makes (or remakes) the framebuffer: a width x height RGBA8 colour
    // texture, bound as the draw and read framebuffer, viewport set to it,
    // cleared to transparent black.
    bool CreateFramebuffer(int width, int height) {
        DeleteFramebuffer();
        glGenTextures(1, &m_colour);
        glBindTexture(GL_TEXTURE_2D, m_colour);
        glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, width, height, 0, GL_RGBA, GL_UNSIGNED_BYTE,
                     nullptr);
        glBindTexture(GL_TEXTURE_2D, 0);
        glGenFramebuffers(1, &m_framebuffer);
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

    void Clear(uint8_t b, uint8_t g, uint8_t r, uint8_t a) {
        glClearColor(r / 255.f, g / 255.f, b / 255.f, a / 255.f);
        glClear(GL_COLOR_BUFFER_BIT);
    }

    // The whole framebuffer as B, G, R, A rows of width x 4 bytes, bottom row first.
    std::vector<uint8_t> ReadPixels() const {
        return ReadTexture(m_framebuffer, m_width, m_height);
    }

    // B, G, R, A of the pixel in column x, GL row y (0 = bottom).
    uint32_t PixelAt(int x, int y) const {
        uint8_t p[4] = {};
        glPixelStorei(GL_PACK_ALIGNMENT, 1);
        glReadPixels(x, y, 1, 1, GL_BGRA, GL_UNSIGNED_BYTE, p);
        return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
               (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
    }

    // Reads a texture back through a temporary framebuffer (the current one is
    // put back afterwards): B, G, R, A, bottom row first.
    static std::vector<uint8_t> ReadBackTexture(GLuint texture, int width, int height) {
        GLint previous = 0;
        glGetIntegerv(GL_FRAMEBUFFER_BINDING, &previous);
        GLuint framebuffer = 0;
        glGenFramebuffers(1, &framebuffer);
        glBindFramebuffer(GL_FRAMEBUFFER, framebuffer);
        glFramebufferTexture2D(GL_FRAMEBUFFER, GL_COLOR_ATTACHMENT0, GL_TEXTURE_2D, texture, 0);
        std::vector<uint8_t> pixels = ReadTexture(framebuffer, width, height);
        glBindFramebuffer(GL_FRAMEBUFFER, static_cast<GLuint>(previous));
        glDeleteFramebuffers(1, &framebuffer);
        return pixels;
    }

    int Width() const { return m_width; }
    int Height() const { return m_height; }
    GLuint Framebuffer() const { return m_framebuffer; }
    const std::string& Error() const { return m_error; }

    void Close() {
        if (m_display == EGL_NO_DISPLAY) {
            return;
        }
        if (m_context != EGL_NO_CONTEXT) {
            MakeCurrent();
            DeleteFramebuffer();
            ReleaseCurrent();
            eglDestroyContext(m_display, m_context);
            m_context = EGL_NO_CONTEXT;
        }
        // The display stays initialised: Mesa shares it within the process and
        // terminating it under other tests' contexts would pull them down.
        m_display = EGL_NO_DISPLAY;
    }

  private:
    static std::vector<uint8_t> ReadTexture(GLuint framebuffer, int width, int height) {
        std::vector<uint8_t> pixels(static_cast<size_t>(width) * static_cast<size_t>(height) * 4u);
        GLint previous = 0;
        glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING, &previous);
        glBindFramebuffer(GL_READ_FRAMEBUFFER, framebuffer);
        glPixelStorei(GL_PACK_ALIGNMENT, 1);
        glReadPixels(0, 0, width, height, GL_BGRA, GL_UNSIGNED_BYTE, pixels.data());
        glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(previous));
        return pixels;
    }

    void DeleteFramebuffer() {
        if (m_framebuffer != 0) {
            glBindFramebuffer(GL_FRAMEBUFFER, 0);
            glDeleteFramebuffers(1, &m_framebuffer);
            m_framebuffer = 0;
        }
        if (m_colour != 0) {
            glDeleteTextures(1, &m_colour);
            m_colour = 0;
        }
    }

    EGLDisplay m_display = EGL_NO_DISPLAY;
    EGLContext m_context = EGL_NO_CONTEXT;
    GLuint m_framebuffer = 0;
    GLuint m_colour = 0;
    int m_width = 0;
    int m_height = 0;
    std::string m_error;
};

#ifndef LUMETS_GL_CONTEXT_NO_GTEST
// A test fixture with a current context and a framebuffer of Width x Height.
// Skips only when no EGL display exists; any later failure fails the test.
template <int Width, int Height>
class GlTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (!m_gl.OpenDisplay()) {
            GTEST_SKIP() << "no EGL display for headless OpenGL: " << m_gl.Error();
        }
        ASSERT_TRUE(m_gl.CreateContext()) << m_gl.Error();
        ASSERT_TRUE(m_gl.CreateFramebuffer(Width, Height));
    }

    GlContext m_gl;
};
#endif

}  // namespace lumets::test

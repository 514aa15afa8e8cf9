// A headless OpenGL 3.3 core context for hosts without a window: Mesa's
// surfaceless EGL platform (the software rasteriser where there is no GPU, the
// driver where there is one), an FBO with one RGBA8 colour texture to draw
// into, and read-back. Rows read back are in OpenGL's order: row 0 is the
// bottom row, as in the library's own pictures.
//
// The command-line host renders its GPU output through it; the tests and
// benchmarks of the GL path use it too. One object per thread that draws.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "lumets/export.h"
#include "lumets/host/gl_objects.h"

namespace lumets::host {

class LUMETS_HOST_API CHeadlessGl {
  public:
    CHeadlessGl() = default;
    // Deletes the framebuffer and the context; the display stays initialised
    // (Mesa shares it within the process).
    ~CHeadlessGl();
    CHeadlessGl(const CHeadlessGl&) = delete;
    CHeadlessGl& operator=(const CHeadlessGl&) = delete;

    // Opens the display. False (with the reason in Error()) when there is no
    // EGL display at all: GL output is then unavailable on this machine.
    bool OpenDisplay();
    // Makes an OpenGL 3.3 core context current on the calling thread. False
    // with the reason in Error().
    bool CreateContext();
    bool MakeCurrent();
    void ReleaseCurrent();

    // Makes (or remakes) the framebuffer: a width x height RGBA8 colour
    // texture, bound as the draw and read framebuffer, viewport set to it,
    // cleared to transparent black. False when GL refuses it.
    bool CreateFramebuffer(int32_t width, int32_t height);
    void Clear(uint8_t b, uint8_t g, uint8_t r, uint8_t a);

    // The whole framebuffer as B, G, R, A rows of width x 4 bytes, bottom row first.
    std::vector<uint8_t> ReadPixels() const;
    // B, G, R, A of the pixel in column x, GL row y (0 = bottom), as 0xAARRGGBB.
    uint32_t PixelAt(int32_t x, int32_t y) const;
    // Reads a texture back through a temporary framebuffer (the current one is
    // put back afterwards): B, G, R, A, bottom row first.
    static std::vector<uint8_t> ReadBackTexture(GLuint texture, int32_t width, int32_t height);

    int32_t Width() const { return m_width; }
    int32_t Height() const { return m_height; }
    GLuint Framebuffer() const { return m_framebuffer; }
    const std::string& Error() const { return m_error; }

    // What the destructor does, earlier.
    void Close();

  private:
    void DeleteFramebuffer();

    void* m_display = nullptr;  // EGLDisplay
    void* m_context = nullptr;  // EGLContext
    GLuint m_framebuffer = 0;
    GLuint m_colour = 0;
    int32_t m_width = 0;
    int32_t m_height = 0;
    std::string m_error;
};

}  // namespace lumets::host

// The host's GL object library: textures and pixel-buffer objects.
// Every call needs an OpenGL context current on the calling thread.
#pragma once

#include <cstdint>

#include "lumets/export.h"

using GLuint = unsigned int;
using GLenum = unsigned int;

#ifndef GL_BGRA
#define GL_BGRA 0x80E1
#endif

enum EnumPBOType : int32_t {
    PBOTypeUnpack = 1,  // streams pixels from memory into textures
};

// One OpenGL pixel-buffer object that streams pictures into textures. Made and
// destroyed only through CGLObjectFactory. The order of the virtual functions
// is the host's interface layout; never reorder them.
class LUMETS_HOST_API IPBO {
  public:
    // 1st: sizes the buffer for width x height pictures of the parameter's depth.
    virtual void Init(int32_t width, int32_t height) = 0;
    // 2nd: the size of the next picture to upload; grows the buffer as needed.
    virtual void Resize(int32_t width, int32_t height) = 0;
    // 3rd and 4th: the size last given to Init or Resize.
    virtual int32_t GetWidth() const = 0;
    virtual int32_t GetHeight() const = 0;
    // 5th: bytes the buffer object holds now.
    virtual uint32_t GetCapacity() const = 0;
    // 6th: the OpenGL buffer object's name (0 before the first upload).
    virtual GLuint GetBufferName() const = 0;
    // 7th: reads a texture of the current size back into pixels (bottom-up
    // rows of width x 4 bytes in the given format). False when size is short
    // or GL reports an error.
    virtual bool Download(GLuint texture, void* pixels, uint32_t size, GLenum format) = 0;
    // 8th: copies a picture of the current size (bottom-up rows of width x 4
    // bytes, B, G, R, A for GL_BGRA) into the texture through the buffer.
    // False when size < width x height x 4, the texture is 0 or GL reports an error.
    virtual bool Upload(GLuint texture, const void* pixels, uint32_t size, GLenum format) = 0;

  protected:
    virtual ~IPBO() = default;
    friend class CGLObjectFactory;
};

class LUMETS_HOST_API CGLObjectFactory {
  public:
    // A new RGBA texture with linear filtering and clamped edges; 0 on failure.
    static GLuint CreateTexture();
    // Null on failure. The library always asks for type 1 with parameter 32 (bits per pixel).
    static IPBO* CreatePBO(EnumPBOType type, uint32_t bitsPerPixel);
    // Null is ignored.
    static void DestroyPBO(IPBO* pbo);
};

namespace lumets::host {

// Test hook: replaces the three functions behind CGLObjectFactory, say to
// count the textures and pixel-buffer objects made and destroyed. A hook that
// counts passes on to the real ones. Objects go back to the factory that made
// them: replace the hook only while none of its objects is alive.
struct GLObjectFactory {
    GLuint (*createTexture)();
    IPBO* (*createPBO)(EnumPBOType type, uint32_t bitsPerPixel);
    void (*destroyPBO)(IPBO* pbo);
};
LUMETS_HOST_API GLObjectFactory RealGLObjectFactory();
// Null, or a null member, restores the real functions.
LUMETS_HOST_API void SetGLObjectFactory(const GLObjectFactory* factory);

}  // namespace lumets::host

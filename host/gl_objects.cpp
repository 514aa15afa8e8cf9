// CGLObjectFactory and its pixel-buffer object.
#include "lumets/host/gl_objects.h"

#include <epoxy/gl.h>

#include <cstdint>
#include <cstring>
#include <mutex>
#include <new>

#include "host_guard.h"
#include "lumets_common/gl_owners.h"
#include "lumets_common/gl_util.h"

using lumets::GlDrainErrors;
using lumets::GlHasCurrentContext;
using lumets::GlOk;
using lumets::gl::CBuffer;
using lumets::gl::CStateGuard;
using lumets::gl::CTexture;
using lumets::host::HostGuarded;

namespace {

// Tightly packed rows: our pictures have width x 4 bytes per row. The guard
// puts the caller's settings back when the transfer ends.
void PackTightly(CStateGuard& guard) {
    for (const GLenum name : {GL_UNPACK_ROW_LENGTH, GL_UNPACK_SKIP_ROWS, GL_UNPACK_SKIP_PIXELS,
                              GL_PACK_ROW_LENGTH, GL_PACK_SKIP_ROWS, GL_PACK_SKIP_PIXELS}) {
        guard.PixelStore(name, 0);
    }
    guard.PixelStore(GL_UNPACK_ALIGNMENT, 4);
    guard.PixelStore(GL_PACK_ALIGNMENT, 4);
}

bool IsFourByteFormat(GLenum format) {
    return format == GL_BGRA || format == GL_RGBA;
}

// Width x height x 4, or 0 when either side is not positive or the product
// does not fit the 32-bit sizes of the interface.
uint32_t PictureBytes(int32_t width, int32_t height) {
    if (width <= 0 || height <= 0) {
        return 0;
    }
    const uint64_t bytes = static_cast<uint64_t>(width) * static_cast<uint64_t>(height) * 4u;
    return bytes > UINT32_MAX ? 0 : static_cast<uint32_t>(bytes);
}

// The host calls these operations directly: each one that reaches GL (and so
// the debug output, which may allocate) runs under HostGuarded; the others
// only read or store members and are noexcept.
class CPBO final : public IPBO {
  public:
    void Init(int32_t width, int32_t height) override {
        HostGuarded(__func__, [&] {
            Resize(width, height);
            if (GlHasCurrentContext()) {
                GlDrainErrors();
                CStateGuard guard;
                PackTightly(guard);
                EnsureBuffer(guard, PictureBytes(m_width, m_height));
            }
        });
    }

    void Resize(int32_t width, int32_t height) noexcept override {
        m_width = width > 0 ? width : 0;
        m_height = height > 0 ? height : 0;
    }

    int32_t GetWidth() const noexcept override { return m_width; }
    int32_t GetHeight() const noexcept override { return m_height; }
    uint32_t GetCapacity() const noexcept override { return m_capacity; }
    GLuint GetBufferName() const noexcept override { return m_buffer.Get(); }

    // Binds the texture and reads the size of its first level.
    static bool BindTexture(CStateGuard& guard, GLuint texture, GLint* width, GLint* height) {
        guard.BindTexture(texture);
        if (!GlOk("glBindTexture")) {
            return false;
        }
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_WIDTH, width);
        glGetTexLevelParameteriv(GL_TEXTURE_2D, 0, GL_TEXTURE_HEIGHT, height);
        return GlOk("glGetTexLevelParameteriv");
    }

    // The bytes of one picture of the current size when a transfer of it can
    // go ahead (a texture, pixels, enough of them, a four-byte format and a
    // current context); 0 otherwise.
    uint32_t TransferBytes(GLuint texture, const void* pixels, uint32_t size, GLenum format) const {
        const uint32_t needed = PictureBytes(m_width, m_height);
        if (texture == 0 || pixels == nullptr || needed == 0 || size < needed ||
            !IsFourByteFormat(format) || !GlHasCurrentContext()) {
            return 0;
        }
        return needed;
    }

    bool Download(GLuint texture, void* pixels, uint32_t size, GLenum format) override {
        return HostGuarded(__func__, [&] {
            if (TransferBytes(texture, pixels, size, format) == 0) {
                return false;
            }
            GlDrainErrors();
            CStateGuard guard;
            PackTightly(guard);
            guard.BindBuffer(GL_PIXEL_PACK_BUFFER, 0);
            // glGetTexImage writes the whole level: refuse a texture of another size
            // rather than write past the caller's buffer.
            GLint texWidth = 0;
            GLint texHeight = 0;
            if (!BindTexture(guard, texture, &texWidth, &texHeight) || texWidth != m_width ||
                texHeight != m_height) {
                return false;
            }
            glGetTexImage(GL_TEXTURE_2D, 0, format, GL_UNSIGNED_BYTE, pixels);
            return GlOk("glGetTexImage");
        });
    }

    bool Upload(GLuint texture, const void* pixels, uint32_t size, GLenum format) override {
        return HostGuarded(__func__, [&] {
            const uint32_t needed = TransferBytes(texture, pixels, size, format);
            if (needed == 0) {
                return false;
            }
            GlDrainErrors();
            CStateGuard guard;
            PackTightly(guard);
            if (!EnsureBuffer(guard, needed) || !FillBuffer(pixels, needed)) {
                return false;
            }
            GLint texWidth = 0;
            GLint texHeight = 0;
            if (!BindTexture(guard, texture, &texWidth, &texHeight)) {
                return false;
            }
            // Rows arrive bottom-up, which is OpenGL's own row order: no flip. The
            // last argument is an offset into the bound unpack buffer.
            if (texWidth == m_width && texHeight == m_height) {
                glTexSubImage2D(GL_TEXTURE_2D, 0, 0, 0, m_width, m_height, format, GL_UNSIGNED_BYTE,
                                nullptr);
                return GlOk("glTexSubImage2D");
            }
            glTexImage2D(GL_TEXTURE_2D, 0, GL_RGBA8, m_width, m_height, 0, format, GL_UNSIGNED_BYTE,
                         nullptr);
            return GlOk("glTexImage2D");
        });
    }

    void DeleteBuffer() {
        const bool had = static_cast<bool>(m_buffer);
        m_buffer.Reset();
        if (had && GlHasCurrentContext()) {
            GlOk("glDeleteBuffers");
        }
        m_capacity = 0;
    }

  private:
    // Leaves the buffer bound to GL_PIXEL_UNPACK_BUFFER with at least bytes.
    bool EnsureBuffer(CStateGuard& guard, uint32_t bytes) {
        if (!m_buffer) {
            m_buffer = CBuffer::Make();
            if (!GlOk("glGenBuffers")) {
                m_buffer.Release();  // no name was made
                return false;
            }
        }
        guard.BindBuffer(GL_PIXEL_UNPACK_BUFFER, m_buffer.Get());
        if (!GlOk("glBindBuffer")) {
            return false;
        }
        if (bytes > m_capacity) {
            glBufferData(GL_PIXEL_UNPACK_BUFFER, bytes, nullptr, GL_STREAM_DRAW);
            if (!GlOk("glBufferData")) {
                m_capacity = 0;
                return false;
            }
            m_capacity = bytes;
        }
        return true;
    }

    // Copies the picture into the bound buffer. Invalidating the old contents
    // lets the driver hand out fresh memory instead of waiting for the GPU to
    // finish the previous upload from it.
    bool FillBuffer(const void* pixels, uint32_t bytes) {
        void* mapped = glMapBufferRange(GL_PIXEL_UNPACK_BUFFER, 0, bytes,
                                        GL_MAP_WRITE_BIT | GL_MAP_INVALIDATE_BUFFER_BIT);
        if (mapped == nullptr || !GlOk("glMapBufferRange")) {
            glBufferSubData(GL_PIXEL_UNPACK_BUFFER, 0, bytes, pixels);
            return GlOk("glBufferSubData");
        }
        std::memcpy(mapped, pixels, bytes);
        // False means the contents were lost while mapped (a mode switch, say);
        // the next frame uploads again.
        const GLboolean intact = glUnmapBuffer(GL_PIXEL_UNPACK_BUFFER);
        return GlOk("glUnmapBuffer") && intact == GL_TRUE;
    }

    int32_t m_width = 0;
    int32_t m_height = 0;
    uint32_t m_capacity = 0;
    CBuffer m_buffer;
};

GLuint RealCreateTexture() {
    if (!GlHasCurrentContext()) {
        return 0;
    }
    GlDrainErrors();
    CTexture texture = CTexture::Make();
    if (!GlOk("glGenTextures") || !texture) {
        texture.Release();
        return 0;
    }
    bool ok = false;
    {
        CStateGuard guard;
        guard.BindTexture(texture.Get());
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        glTexParameteri(GL_TEXTURE_2D, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        ok = GlOk("glTexParameteri");
    }
    if (!ok) {
        texture.Reset();
        GlDrainErrors();
        return 0;
    }
    // The caller owns the name from here on.
    return texture.Release();
}

IPBO* RealCreatePBO(EnumPBOType type, uint32_t bitsPerPixel) {
    if (type != PBOTypeUnpack || bitsPerPixel != 32) {
        return nullptr;
    }
    return new (std::nothrow) CPBO();
}

void RealDestroyPBO(IPBO* pbo) {
    if (pbo == nullptr) {
        return;
    }
    // Every IPBO the real factory is handed is one of its own.
    auto* own = static_cast<CPBO*>(pbo);
    own->DeleteBuffer();
    delete own;
}

constexpr lumets::host::GLObjectFactory kRealFactory{RealCreateTexture, RealCreatePBO,
                                                     RealDestroyPBO};

std::mutex g_factoryMutex;
lumets::host::GLObjectFactory g_factory = kRealFactory;

lumets::host::GLObjectFactory CurrentFactory() {
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    return g_factory;
}

}  // namespace

GLuint CGLObjectFactory::CreateTexture() {
    return HostGuarded(__func__, [&] { return CurrentFactory().createTexture(); });
}

IPBO* CGLObjectFactory::CreatePBO(EnumPBOType type, uint32_t bitsPerPixel) {
    return HostGuarded(__func__, [&] { return CurrentFactory().createPBO(type, bitsPerPixel); });
}

void CGLObjectFactory::DestroyPBO(IPBO* pbo) {
    HostGuarded(__func__, [&] {
        if (pbo != nullptr) {
            CurrentFactory().destroyPBO(pbo);
        }
    });
}

namespace lumets::host {

GLObjectFactory RealGLObjectFactory() {
    return kRealFactory;
}

void SetGLObjectFactory(const GLObjectFactory* factory) {
    std::lock_guard<std::mutex> lock(g_factoryMutex);
    const bool restore = factory == nullptr || factory->createTexture == nullptr ||
                         factory->createPBO == nullptr || factory->destroyPBO == nullptr;
    g_factory = restore ? kRealFactory : *factory;
}

}  // namespace lumets::host

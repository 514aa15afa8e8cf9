// Owners for GL objects and a guard for GL state. Every GL name the library,
// the host library and the program make is held by an owner, which deletes it
// once; and every change a draw or a transfer makes to the context's state
// goes through a CStateGuard, which puts back exactly what it changed. A host
// that draws us inside its own context (a studio program's, say) finds its
// state as it left it.
#pragma once

#include <epoxy/gl.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace lumets::gl {

// How each kind of name is made and deleted. Names are deleted only while a
// context is current: without one their context, and they with it, are gone.
struct TextureKind {
    static GLuint Make();
    static void Delete(GLuint name);
};
struct BufferKind {
    static GLuint Make();
    static void Delete(GLuint name);
};
struct VertexArrayKind {
    static GLuint Make();
    static void Delete(GLuint name);
};
struct FramebufferKind {
    static GLuint Make();
    static void Delete(GLuint name);
};
struct ProgramKind {
    static GLuint Make();
    static void Delete(GLuint name);
};
struct ShaderKind {
    static void Delete(GLuint name);
};

template <typename Kind>
class COwned {
  public:
    COwned() = default;
    explicit COwned(GLuint name) noexcept : m_name(name) {}
    ~COwned() { Reset(); }
    COwned(COwned&& other) noexcept : m_name(other.Release()) {}
    COwned& operator=(COwned&& other) noexcept {
        if (this != &other) {
            Reset(other.Release());
        }
        return *this;
    }
    COwned(const COwned&) = delete;
    COwned& operator=(const COwned&) = delete;

    // A new name of this kind; an empty owner when GL gives none.
    static COwned Make() { return COwned(Kind::Make()); }

    GLuint Get() const noexcept { return m_name; }
    explicit operator bool() const noexcept { return m_name != 0; }
    // Gives the name up without deleting it.
    GLuint Release() noexcept { return std::exchange(m_name, 0); }
    void Reset(GLuint name = 0) {
        if (m_name != 0) {
            Kind::Delete(m_name);
        }
        m_name = name;
    }

  private:
    GLuint m_name = 0;
};

using CTexture = COwned<TextureKind>;
using CBuffer = COwned<BufferKind>;
using CVertexArray = COwned<VertexArrayKind>;
using CFramebuffer = COwned<FramebufferKind>;
using CProgram = COwned<ProgramKind>;
using CShader = COwned<ShaderKind>;

// Deletes count texture names in one call: the batches in which the manager
// gives back the textures its owners released. A count of 0 is still one call.
void DeleteTextures(const GLuint* names, GLsizei count);

// Changes state for as long as it lives and then puts back exactly what it
// changed, in reverse order: each state is read the first time the guard
// changes it, and states it never touched are never written.
class CStateGuard {
  public:
    CStateGuard() = default;
    ~CStateGuard();
    CStateGuard(const CStateGuard&) = delete;
    CStateGuard& operator=(const CStateGuard&) = delete;

    void UseProgram(GLuint program);
    void BindVertexArray(GLuint array);
    // GL_ARRAY_BUFFER, GL_PIXEL_UNPACK_BUFFER or GL_PIXEL_PACK_BUFFER.
    void BindBuffer(GLenum target, GLuint buffer);
    void ActiveTexture(GLenum unit);
    // GL_TEXTURE_2D on the active unit.
    void BindTexture(GLuint texture);
    void BindSampler(GLuint unit, GLuint sampler);
    // GL_FRAMEBUFFER, GL_READ_FRAMEBUFFER or GL_DRAW_FRAMEBUFFER.
    void BindFramebuffer(GLenum target, GLuint framebuffer);
    void SetEnabled(GLenum capability, bool enabled);
    void BlendFuncSeparate(GLenum srcRgb, GLenum dstRgb, GLenum srcAlpha, GLenum dstAlpha);
    void BlendEquationSeparate(GLenum rgb, GLenum alpha);
    void Viewport(GLint x, GLint y, GLsizei width, GLsizei height);
    void Scissor(GLint x, GLint y, GLsizei width, GLsizei height);
    void PixelStore(GLenum name, GLint value);

  private:
    enum class What : uint8_t {
        Program,
        VertexArray,
        Buffer,
        ActiveTexture,
        Texture,
        Sampler,
        Framebuffer,
        Enabled,
        BlendFunc,
        BlendEquation,
        Viewport,
        Scissor,
        PixelStore,
    };
    struct Saved {
        What what;
        GLenum name;      // the target, unit, capability or parameter
        GLint values[4];  // as they were
    };
    // True the first time what/name is changed: then its old value is to be
    // saved in the returned entry.
    Saved* FirstChange(What what, GLenum name);

    static constexpr size_t kMost = 32;
    Saved m_saved[kMost] = {};
    size_t m_count = 0;
};

}  // namespace lumets::gl

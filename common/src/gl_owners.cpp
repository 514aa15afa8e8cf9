#include "lumets_common/gl_owners.h"

#include "lumets_common/gl_util.h"

namespace lumets::gl {
namespace {

GLint GetInteger(GLenum name) {
    GLint value = 0;
    glGetIntegerv(name, &value);
    return value;
}

GLenum BufferBinding(GLenum target) {
    switch (target) {
        case GL_PIXEL_UNPACK_BUFFER:
            return GL_PIXEL_UNPACK_BUFFER_BINDING;
        case GL_PIXEL_PACK_BUFFER:
            return GL_PIXEL_PACK_BUFFER_BINDING;
        default:
            return GL_ARRAY_BUFFER_BINDING;
    }
}

}  // namespace

GLuint TextureKind::Make() {
    GLuint name = 0;
    glGenTextures(1, &name);
    return name;
}
void TextureKind::Delete(GLuint name) {
    if (GlHasCurrentContext()) {
        glDeleteTextures(1, &name);
    }
}

GLuint BufferKind::Make() {
    GLuint name = 0;
    glGenBuffers(1, &name);
    return name;
}
void BufferKind::Delete(GLuint name) {
    if (GlHasCurrentContext()) {
        glDeleteBuffers(1, &name);
    }
}

GLuint VertexArrayKind::Make() {
    GLuint name = 0;
    glGenVertexArrays(1, &name);
    return name;
}
void VertexArrayKind::Delete(GLuint name) {
    if (GlHasCurrentContext()) {
        glDeleteVertexArrays(1, &name);
    }
}

GLuint FramebufferKind::Make() {
    GLuint name = 0;
    glGenFramebuffers(1, &name);
    return name;
}
void FramebufferKind::Delete(GLuint name) {
    if (GlHasCurrentContext()) {
        glDeleteFramebuffers(1, &name);
    }
}

GLuint ProgramKind::Make() {
    return glCreateProgram();
}
void ProgramKind::Delete(GLuint name) {
    if (GlHasCurrentContext()) {
        glDeleteProgram(name);
    }
}

void ShaderKind::Delete(GLuint name) {
    if (GlHasCurrentContext()) {
        glDeleteShader(name);
    }
}

void DeleteTextures(const GLuint* names, GLsizei count) {
    if (GlHasCurrentContext()) {
        glDeleteTextures(count, names);
    }
}

CStateGuard::Saved* CStateGuard::FirstChange(What what, GLenum name) {
    for (size_t i = 0; i < m_count; ++i) {
        if (m_saved[i].what == what && m_saved[i].name == name) {
            return nullptr;
        }
    }
    if (m_count == kMost) {
        return nullptr;  // more states than any draw changes: left as set
    }
    Saved& saved = m_saved[m_count++];
    saved = Saved{what, name, {}};
    return &saved;
}

void CStateGuard::UseProgram(GLuint program) {
    if (Saved* saved = FirstChange(What::Program, 0)) {
        saved->values[0] = GetInteger(GL_CURRENT_PROGRAM);
    }
    glUseProgram(program);
}

void CStateGuard::BindVertexArray(GLuint array) {
    if (Saved* saved = FirstChange(What::VertexArray, 0)) {
        saved->values[0] = GetInteger(GL_VERTEX_ARRAY_BINDING);
    }
    glBindVertexArray(array);
}

void CStateGuard::BindBuffer(GLenum target, GLuint buffer) {
    if (Saved* saved = FirstChange(What::Buffer, target)) {
        saved->values[0] = GetInteger(BufferBinding(target));
    }
    glBindBuffer(target, buffer);
}

void CStateGuard::ActiveTexture(GLenum unit) {
    if (Saved* saved = FirstChange(What::ActiveTexture, 0)) {
        saved->values[0] = GetInteger(GL_ACTIVE_TEXTURE);
    }
    glActiveTexture(unit);
}

void CStateGuard::BindTexture(GLuint texture) {
    const auto unit = static_cast<GLenum>(GetInteger(GL_ACTIVE_TEXTURE));
    if (Saved* saved = FirstChange(What::Texture, unit)) {
        saved->values[0] = GetInteger(GL_TEXTURE_BINDING_2D);
    }
    glBindTexture(GL_TEXTURE_2D, texture);
}

void CStateGuard::BindSampler(GLuint unit, GLuint sampler) {
    if (Saved* saved = FirstChange(What::Sampler, unit)) {
        const GLint active = GetInteger(GL_ACTIVE_TEXTURE);
        glActiveTexture(GL_TEXTURE0 + unit);
        saved->values[0] = GetInteger(GL_SAMPLER_BINDING);
        glActiveTexture(static_cast<GLenum>(active));
    }
    glBindSampler(unit, sampler);
}

void CStateGuard::BindFramebuffer(GLenum target, GLuint framebuffer) {
    if (Saved* saved = FirstChange(What::Framebuffer, target)) {
        saved->values[0] = GetInteger(GL_DRAW_FRAMEBUFFER_BINDING);
        saved->values[1] = GetInteger(GL_READ_FRAMEBUFFER_BINDING);
    }
    glBindFramebuffer(target, framebuffer);
}

void CStateGuard::SetEnabled(GLenum capability, bool enabled) {
    if (Saved* saved = FirstChange(What::Enabled, capability)) {
        saved->values[0] = glIsEnabled(capability);
    }
    if (enabled) {
        glEnable(capability);
    } else {
        glDisable(capability);
    }
}

void CStateGuard::BlendFuncSeparate(GLenum srcRgb, GLenum dstRgb, GLenum srcAlpha,
                                    GLenum dstAlpha) {
    if (Saved* saved = FirstChange(What::BlendFunc, 0)) {
        saved->values[0] = GetInteger(GL_BLEND_SRC_RGB);
        saved->values[1] = GetInteger(GL_BLEND_DST_RGB);
        saved->values[2] = GetInteger(GL_BLEND_SRC_ALPHA);
        saved->values[3] = GetInteger(GL_BLEND_DST_ALPHA);
    }
    glBlendFuncSeparate(srcRgb, dstRgb, srcAlpha, dstAlpha);
}

void CStateGuard::BlendEquationSeparate(GLenum rgb, GLenum alpha) {
    if (Saved* saved = FirstChange(What::BlendEquation, 0)) {
        saved->values[0] = GetInteger(GL_BLEND_EQUATION_RGB);
        saved->values[1] = GetInteger(GL_BLEND_EQUATION_ALPHA);
    }
    glBlendEquationSeparate(rgb, alpha);
}

void CStateGuard::Viewport(GLint x, GLint y, GLsizei width, GLsizei height) {
    if (Saved* saved = FirstChange(What::Viewport, 0)) {
        glGetIntegerv(GL_VIEWPORT, saved->values);
    }
    glViewport(x, y, width, height);
}

void CStateGuard::Scissor(GLint x, GLint y, GLsizei width, GLsizei height) {
    if (Saved* saved = FirstChange(What::Scissor, 0)) {
        glGetIntegerv(GL_SCISSOR_BOX, saved->values);
    }
    glScissor(x, y, width, height);
}

void CStateGuard::PixelStore(GLenum name, GLint value) {
    if (Saved* saved = FirstChange(What::PixelStore, name)) {
        saved->values[0] = GetInteger(name);
    }
    glPixelStorei(name, value);
}

CStateGuard::~CStateGuard() {
    while (m_count > 0) {
        const Saved& saved = m_saved[--m_count];
        const GLint* v = saved.values;
        switch (saved.what) {
            case What::Program:
                glUseProgram(static_cast<GLuint>(v[0]));
                break;
            case What::VertexArray:
                glBindVertexArray(static_cast<GLuint>(v[0]));
                break;
            case What::Buffer:
                glBindBuffer(saved.name, static_cast<GLuint>(v[0]));
                break;
            case What::ActiveTexture:
                glActiveTexture(static_cast<GLenum>(v[0]));
                break;
            case What::Texture: {
                const GLint active = GetInteger(GL_ACTIVE_TEXTURE);
                glActiveTexture(saved.name);
                glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(v[0]));
                glActiveTexture(static_cast<GLenum>(active));
                break;
            }
            case What::Sampler:
                glBindSampler(saved.name, static_cast<GLuint>(v[0]));
                break;
            case What::Framebuffer:
                if (saved.name != GL_READ_FRAMEBUFFER) {
                    glBindFramebuffer(GL_DRAW_FRAMEBUFFER, static_cast<GLuint>(v[0]));
                }
                if (saved.name != GL_DRAW_FRAMEBUFFER) {
                    glBindFramebuffer(GL_READ_FRAMEBUFFER, static_cast<GLuint>(v[1]));
                }
                break;
            case What::Enabled:
                if (v[0] != GL_FALSE) {
                    glEnable(saved.name);
                } else {
                    glDisable(saved.name);
                }
                break;
            case What::BlendFunc:
                glBlendFuncSeparate(static_cast<GLenum>(v[0]), static_cast<GLenum>(v[1]),
                                    static_cast<GLenum>(v[2]), static_cast<GLenum>(v[3]));
                break;
            case What::BlendEquation:
                glBlendEquationSeparate(static_cast<GLenum>(v[0]), static_cast<GLenum>(v[1]));
                break;
            case What::Viewport:
                glViewport(v[0], v[1], v[2], v[3]);
                break;
            case What::Scissor:
                glScissor(v[0], v[1], v[2], v[3]);
                break;
            case What::PixelStore:
                glPixelStorei(saved.name, v[0]);
                break;
        }
    }
}

}  // namespace lumets::gl

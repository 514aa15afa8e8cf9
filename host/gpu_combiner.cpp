// The GPU combiner: one textured quad per draw, blended "over" the current
// framebuffer with straight alpha.
#include "lumets/host/gpu_combiner.h"

#include <epoxy/gl.h>

#include <mutex>
#include <new>

#include "factory_hook.h"
#include "host_guard.h"
#include "lumets_common/gl_util.h"

using lumets::GlDrainErrors;
using lumets::GlHasCurrentContext;
using lumets::GlOk;
using lumets::host::HostGuarded;

namespace {

// The quad's corners are (0,0), (1,0), (0,1), (1,1) in "rectangle space":
// (0,0) is the destination's top-left and the source's top-left alike, so the
// shaders need only the two rectangles' corners.
constexpr const char* kVertexShader = R"(#version 330 core
layout(location = 0) in vec2 aCorner;
uniform vec4 uDestination;  // left, top, right, bottom in clip space
uniform vec4 uSource;       // left, top, right, bottom in texture coordinates
out vec2 vTexCoord;
void main() {
    gl_Position = vec4(mix(uDestination.xy, uDestination.zw, aCorner), 0.0, 1.0);
    vTexCoord = mix(uSource.xy, uSource.zw, aCorner);
}
)";

constexpr const char* kFragmentShader = R"(#version 330 core
in vec2 vTexCoord;
uniform sampler2D uTexture;
uniform float uOpacity;
out vec4 fragColor;
void main() {
    vec4 texel = texture(uTexture, vTexCoord);
    fragColor = vec4(texel.rgb, texel.a * uOpacity);
}
)";

constexpr GLfloat kCorners[] = {0.f, 0.f, 1.f, 0.f, 0.f, 1.f, 1.f, 1.f};

GLint GetInteger(GLenum name) {
    GLint value = 0;
    glGetIntegerv(name, &value);
    return value;
}

GLuint CompileShader(GLenum type, const char* source) {
    const GLuint shader = glCreateShader(type);
    if (shader == 0) {
        GlOk("glCreateShader");
        return 0;
    }
    glShaderSource(shader, 1, &source, nullptr);
    glCompileShader(shader);
    GLint compiled = GL_FALSE;
    glGetShaderiv(shader, GL_COMPILE_STATUS, &compiled);
    if (!GlOk("glCompileShader") || compiled != GL_TRUE) {
        glDeleteShader(shader);
        return 0;
    }
    return shader;
}

// Everything a draw changes, put back as the caller had it.
class CDrawStateGuard {
  public:
    CDrawStateGuard()
        : m_program(GetInteger(GL_CURRENT_PROGRAM)),
          m_activeTexture(GetInteger(GL_ACTIVE_TEXTURE)),
          m_vertexArray(GetInteger(GL_VERTEX_ARRAY_BINDING)),
          m_arrayBuffer(GetInteger(GL_ARRAY_BUFFER_BINDING)),
          m_blendSrcRgb(GetInteger(GL_BLEND_SRC_RGB)),
          m_blendDstRgb(GetInteger(GL_BLEND_DST_RGB)),
          m_blendSrcAlpha(GetInteger(GL_BLEND_SRC_ALPHA)),
          m_blendDstAlpha(GetInteger(GL_BLEND_DST_ALPHA)),
          m_blendEquationRgb(GetInteger(GL_BLEND_EQUATION_RGB)),
          m_blendEquationAlpha(GetInteger(GL_BLEND_EQUATION_ALPHA)),
          m_blend(glIsEnabled(GL_BLEND)),
          m_depthTest(glIsEnabled(GL_DEPTH_TEST)),
          m_stencilTest(glIsEnabled(GL_STENCIL_TEST)),
          m_cullFace(glIsEnabled(GL_CULL_FACE)) {
        glGetIntegerv(GL_VIEWPORT, m_viewport);
        glActiveTexture(GL_TEXTURE0);
        m_texture0 = GetInteger(GL_TEXTURE_BINDING_2D);
        m_sampler0 = GetInteger(GL_SAMPLER_BINDING);
    }
    ~CDrawStateGuard() {
        glBindSampler(0, static_cast<GLuint>(m_sampler0));
        glBindTexture(GL_TEXTURE_2D, static_cast<GLuint>(m_texture0));
        glActiveTexture(static_cast<GLenum>(m_activeTexture));
        glUseProgram(static_cast<GLuint>(m_program));
        glBindVertexArray(static_cast<GLuint>(m_vertexArray));
        glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(m_arrayBuffer));
        glBlendFuncSeparate(static_cast<GLenum>(m_blendSrcRgb), static_cast<GLenum>(m_blendDstRgb),
                            static_cast<GLenum>(m_blendSrcAlpha),
                            static_cast<GLenum>(m_blendDstAlpha));
        glBlendEquationSeparate(static_cast<GLenum>(m_blendEquationRgb),
                                static_cast<GLenum>(m_blendEquationAlpha));
        SetEnabled(GL_BLEND, m_blend);
        SetEnabled(GL_DEPTH_TEST, m_depthTest);
        SetEnabled(GL_STENCIL_TEST, m_stencilTest);
        SetEnabled(GL_CULL_FACE, m_cullFace);
        glViewport(m_viewport[0], m_viewport[1], m_viewport[2], m_viewport[3]);
    }
    CDrawStateGuard(const CDrawStateGuard&) = delete;
    CDrawStateGuard& operator=(const CDrawStateGuard&) = delete;

    const GLint* Viewport() const { return m_viewport; }

  private:
    static void SetEnabled(GLenum capability, GLboolean enabled) {
        if (enabled) {
            glEnable(capability);
        } else {
            glDisable(capability);
        }
    }

    GLint m_program;
    GLint m_activeTexture;
    GLint m_vertexArray;
    GLint m_arrayBuffer;
    GLint m_blendSrcRgb;
    GLint m_blendDstRgb;
    GLint m_blendSrcAlpha;
    GLint m_blendDstAlpha;
    GLint m_blendEquationRgb;
    GLint m_blendEquationAlpha;
    GLboolean m_blend;
    GLboolean m_depthTest;
    GLboolean m_stencilTest;
    GLboolean m_cullFace;
    GLint m_viewport[4] = {};
    GLint m_texture0 = 0;
    GLint m_sampler0 = 0;
};

// As with the pixel-buffer object, the operations that reach GL run under
// HostGuarded and the others are noexcept.
class CGPUCombiner final : public IGPUCombiner {
  public:
    ~CGPUCombiner() override { Release(); }

    bool Init() override {
        return HostGuarded(__func__, [&] {
            Release();
            if (!GlHasCurrentContext()) {
                return false;
            }
            GlDrainErrors();
            const GLint previousVertexArray = GetInteger(GL_VERTEX_ARRAY_BINDING);
            const GLint previousArrayBuffer = GetInteger(GL_ARRAY_BUFFER_BINDING);
            const bool ok = BuildProgram() && BuildQuad();
            glBindVertexArray(static_cast<GLuint>(previousVertexArray));
            glBindBuffer(GL_ARRAY_BUFFER, static_cast<GLuint>(previousArrayBuffer));
            if (!ok) {
                Release();
                return false;
            }
            m_drawCount = 0;
            return true;
        });
    }

    void Release() override {
        HostGuarded(__func__, [&] {
            if (GlHasCurrentContext()) {
                if (m_program != 0) {
                    glDeleteProgram(m_program);
                }
                if (m_vertexArray != 0) {
                    glDeleteVertexArrays(1, &m_vertexArray);
                }
                if (m_vertexBuffer != 0) {
                    glDeleteBuffers(1, &m_vertexBuffer);
                }
                GlOk("Release");
            }
            m_program = 0;
            m_vertexArray = 0;
            m_vertexBuffer = 0;
        });
    }

    void SetOpacity(float opacity) noexcept override {
        // NaN fails both comparisons and becomes 0.
        m_opacity = opacity >= 1.f ? 1.f : (opacity > 0.f ? opacity : 0.f);
    }
    float GetOpacity() const noexcept override { return m_opacity; }

    void Clear(uint32_t argb) override {
        HostGuarded(__func__, [&] {
            if (!GlHasCurrentContext()) {
                return;
            }
            GlDrainErrors();
            GLfloat previous[4] = {};
            glGetFloatv(GL_COLOR_CLEAR_VALUE, previous);
            glClearColor(static_cast<GLfloat>((argb >> 16) & 0xFF) / 255.f,
                         static_cast<GLfloat>((argb >> 8) & 0xFF) / 255.f,
                         static_cast<GLfloat>(argb & 0xFF) / 255.f,
                         static_cast<GLfloat>(argb >> 24) / 255.f);
            glClear(GL_COLOR_BUFFER_BIT);
            glClearColor(previous[0], previous[1], previous[2], previous[3]);
            GlOk("glClear");
        });
    }

    uint32_t GetDrawCount() const noexcept override { return m_drawCount; }

    bool DrawTexture(GLuint texture, int32_t /*mode*/) override {
        return HostGuarded(__func__, [&] {
            if (texture == 0 || m_program == 0 || !m_hasDestination ||
                (!m_wholeTexture && !m_hasSource) || !GlHasCurrentContext()) {
                return false;
            }
            GlDrainErrors();
            CDrawStateGuard guard;

            // Top-down target units onto clip space; the viewport then maps clip
            // space onto pixels, so a target of width / scale draws item units
            // scaled by scale. Clip space y grows upwards.
            const float tw = static_cast<float>(m_targetWidth);
            const float th = static_cast<float>(m_targetHeight);
            const float dLeft = 2.f * static_cast<float>(m_destination.left) / tw - 1.f;
            const float dRight = 2.f * static_cast<float>(m_destination.right) / tw - 1.f;
            const float dTop = 1.f - 2.f * static_cast<float>(m_destination.top) / th;
            const float dBottom = 1.f - 2.f * static_cast<float>(m_destination.bottom) / th;

            // Texture rows are stored bottom-up: t = 0 is the picture's bottom edge.
            float sLeft = 0.f;
            float sRight = 1.f;
            float sTop = 1.f;
            float sBottom = 0.f;
            if (!m_wholeTexture) {
                const float sw = static_cast<float>(m_textureWidth);
                const float sh = static_cast<float>(m_textureHeight);
                sLeft = static_cast<float>(m_source.left) / sw;
                sRight = static_cast<float>(m_source.right) / sw;
                sTop = 1.f - static_cast<float>(m_source.top) / sh;
                sBottom = 1.f - static_cast<float>(m_source.bottom) / sh;
            }

            glUseProgram(m_program);
            glUniform4f(m_destinationLocation, dLeft, dTop, dRight, dBottom);
            glUniform4f(m_sourceLocation, sLeft, sTop, sRight, sBottom);
            glUniform1f(m_opacityLocation, m_opacity);
            glUniform1i(m_textureLocation, 0);
            glBindSampler(0, 0);
            glBindTexture(GL_TEXTURE_2D, texture);
            glBindVertexArray(m_vertexArray);
            glEnable(GL_BLEND);
            glBlendEquationSeparate(GL_FUNC_ADD, GL_FUNC_ADD);
            glBlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE,
                                GL_ONE_MINUS_SRC_ALPHA);
            glDisable(GL_DEPTH_TEST);
            glDisable(GL_STENCIL_TEST);
            glDisable(GL_CULL_FACE);
            if (!GlOk("DrawTexture setup")) {
                return false;
            }
            glDrawArrays(GL_TRIANGLE_STRIP, 0, 4);
            if (!GlOk("glDrawArrays")) {
                return false;
            }
            ++m_drawCount;
            return true;
        });
    }

    void GetRects(RECT* destination, RECT* source) const noexcept override {
        if (destination != nullptr) {
            *destination = m_destination;
        }
        if (source != nullptr) {
            *source = m_source;
        }
    }

    bool SetDestination(const RECT* rect, int32_t targetWidth, int32_t targetHeight,
                        int32_t flag) noexcept override {
        m_hasDestination = rect != nullptr && targetWidth > 0 && targetHeight > 0 &&
                           rect->right > rect->left && rect->bottom > rect->top;
        if (!m_hasDestination) {
            return false;
        }
        m_destination = *rect;
        m_targetWidth = targetWidth;
        m_targetHeight = targetHeight;
        m_wholeTexture = flag == 1;
        return true;
    }

    bool SetSource(const RECT* rect, int32_t texWidth, int32_t texHeight,
                   int32_t /*reserved*/) noexcept override {
        m_hasSource = rect != nullptr && texWidth > 0 && texHeight > 0 &&
                      rect->right > rect->left && rect->bottom > rect->top;
        if (!m_hasSource) {
            return false;
        }
        m_source = *rect;
        m_textureWidth = texWidth;
        m_textureHeight = texHeight;
        m_wholeTexture = false;
        return true;
    }

  private:
    bool BuildProgram() {
        const GLuint vertex = CompileShader(GL_VERTEX_SHADER, kVertexShader);
        const GLuint fragment = CompileShader(GL_FRAGMENT_SHADER, kFragmentShader);
        if (vertex == 0 || fragment == 0) {
            glDeleteShader(vertex);
            glDeleteShader(fragment);
            return false;
        }
        m_program = glCreateProgram();
        glAttachShader(m_program, vertex);
        glAttachShader(m_program, fragment);
        glLinkProgram(m_program);
        // The program keeps the shaders alive as long as it needs them.
        glDeleteShader(vertex);
        glDeleteShader(fragment);
        GLint linked = GL_FALSE;
        glGetProgramiv(m_program, GL_LINK_STATUS, &linked);
        if (!GlOk("glLinkProgram") || linked != GL_TRUE) {
            return false;
        }
        m_destinationLocation = glGetUniformLocation(m_program, "uDestination");
        m_sourceLocation = glGetUniformLocation(m_program, "uSource");
        m_opacityLocation = glGetUniformLocation(m_program, "uOpacity");
        m_textureLocation = glGetUniformLocation(m_program, "uTexture");
        return GlOk("glGetUniformLocation") && m_destinationLocation >= 0 &&
               m_sourceLocation >= 0 && m_opacityLocation >= 0 && m_textureLocation >= 0;
    }

    bool BuildQuad() {
        glGenVertexArrays(1, &m_vertexArray);
        glGenBuffers(1, &m_vertexBuffer);
        glBindVertexArray(m_vertexArray);
        glBindBuffer(GL_ARRAY_BUFFER, m_vertexBuffer);
        glBufferData(GL_ARRAY_BUFFER, sizeof kCorners, kCorners, GL_STATIC_DRAW);
        glEnableVertexAttribArray(0);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 2 * sizeof(GLfloat), nullptr);
        return GlOk("BuildQuad");
    }

    GLuint m_program = 0;
    GLuint m_vertexArray = 0;
    GLuint m_vertexBuffer = 0;
    GLint m_destinationLocation = -1;
    GLint m_sourceLocation = -1;
    GLint m_opacityLocation = -1;
    GLint m_textureLocation = -1;
    float m_opacity = 1.f;
    uint32_t m_drawCount = 0;
    RECT m_destination = {};
    RECT m_source = {};
    int32_t m_targetWidth = 0;
    int32_t m_targetHeight = 0;
    int32_t m_textureWidth = 0;
    int32_t m_textureHeight = 0;
    bool m_hasDestination = false;
    bool m_hasSource = false;
    bool m_wholeTexture = false;
};

IGPUCombiner* CreateRealCombiner() {
    return new (std::nothrow) CGPUCombiner();
}

void DestroyRealCombiner(IGPUCombiner* combiner) {
    delete static_cast<CGPUCombiner*>(combiner);
}

lumets::host::CFactoryHook<IGPUCombiner>& Factories() {
    static lumets::host::CFactoryHook<IGPUCombiner> factories(CreateRealCombiner,
                                                              DestroyRealCombiner);
    return factories;
}

}  // namespace

IGPUCombiner* CProcessorFactory::CreateCombiner() {
    return HostGuarded(__func__, [&] { return Factories().Make(); });
}

void CProcessorFactory::DestroyCombiner(IGPUCombiner* combiner) {
    HostGuarded(__func__, [&] { Factories().Free(combiner); });
}

namespace lumets::host {

void SetCombinerFactory(CombinerFactory create, CombinerDeleter destroy) {
    Factories().Replace(create, destroy);
}

}  // namespace lumets::host

// The GPU combiner: one textured quad per draw, blended "over" the current
// framebuffer with straight alpha.
#include "lumets/host/gpu_combiner.h"

#include <epoxy/gl.h>

#include <mutex>
#include <new>

#include "factory_hook.h"
#include "host_guard.h"
#include "lumets_common/gl_owners.h"
#include "lumets_common/gl_util.h"

using lumets::GlDrainErrors;
using lumets::GlHasCurrentContext;
using lumets::GlOk;
using lumets::gl::CBuffer;
using lumets::gl::CProgram;
using lumets::gl::CShader;
using lumets::gl::CStateGuard;
using lumets::gl::CVertexArray;
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

CShader CompileShader(GLenum type, const char* source) {
    CShader shader(glCreateShader(type));
    if (!shader) {
        GlOk("glCreateShader");
        return shader;
    }
    const GLuint name = shader.Get();
    glShaderSource(name, 1, &source, nullptr);
    glCompileShader(name);
    GLint compiled = GL_FALSE;
    glGetShaderiv(name, GL_COMPILE_STATUS, &compiled);
    if (!GlOk("glCompileShader") || compiled != GL_TRUE) {
        shader.Reset();
    }
    return shader;
}

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
            bool ok = false;
            {
                CStateGuard guard;
                ok = BuildProgram() && BuildQuad(guard);
            }
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
            // Without a current context the names went with it.
            m_program.Reset();
            m_vertexArray.Reset();
            m_vertexBuffer.Reset();
            if (GlHasCurrentContext()) {
                GlOk("Release");
            }
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
            if (texture == 0 || !m_program || !m_hasDestination ||
                (!m_wholeTexture && !m_hasSource) || !GlHasCurrentContext()) {
                return false;
            }
            GlDrainErrors();
            // Everything the draw changes is put back as the caller had it.
            CStateGuard guard;

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

            guard.ActiveTexture(GL_TEXTURE0);
            guard.UseProgram(m_program.Get());
            glUniform4f(m_destinationLocation, dLeft, dTop, dRight, dBottom);
            glUniform4f(m_sourceLocation, sLeft, sTop, sRight, sBottom);
            glUniform1f(m_opacityLocation, m_opacity);
            glUniform1i(m_textureLocation, 0);
            guard.BindSampler(0, 0);
            guard.BindTexture(texture);
            guard.BindVertexArray(m_vertexArray.Get());
            guard.SetEnabled(GL_BLEND, true);
            guard.BlendEquationSeparate(GL_FUNC_ADD, GL_FUNC_ADD);
            guard.BlendFuncSeparate(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, GL_ONE,
                                    GL_ONE_MINUS_SRC_ALPHA);
            guard.SetEnabled(GL_DEPTH_TEST, false);
            guard.SetEnabled(GL_STENCIL_TEST, false);
            guard.SetEnabled(GL_CULL_FACE, false);
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
        // The program keeps the shaders alive as long as it needs them.
        const CShader vertex = CompileShader(GL_VERTEX_SHADER, kVertexShader);
        const CShader fragment = CompileShader(GL_FRAGMENT_SHADER, kFragmentShader);
        if (!vertex || !fragment) {
            return false;
        }
        m_program = CProgram::Make();
        const GLuint program = m_program.Get();
        glAttachShader(program, vertex.Get());
        glAttachShader(program, fragment.Get());
        glLinkProgram(program);
        GLint linked = GL_FALSE;
        glGetProgramiv(program, GL_LINK_STATUS, &linked);
        if (!GlOk("glLinkProgram") || linked != GL_TRUE) {
            return false;
        }
        m_destinationLocation = glGetUniformLocation(program, "uDestination");
        m_sourceLocation = glGetUniformLocation(program, "uSource");
        m_opacityLocation = glGetUniformLocation(program, "uOpacity");
        m_textureLocation = glGetUniformLocation(program, "uTexture");
        return GlOk("glGetUniformLocation") && m_destinationLocation >= 0 &&
               m_sourceLocation >= 0 && m_opacityLocation >= 0 && m_textureLocation >= 0;
    }

    bool BuildQuad(CStateGuard& guard) {
        m_vertexArray = CVertexArray::Make();
        m_vertexBuffer = CBuffer::Make();
        guard.BindVertexArray(m_vertexArray.Get());
        guard.BindBuffer(GL_ARRAY_BUFFER, m_vertexBuffer.Get());
        glBufferData(GL_ARRAY_BUFFER, sizeof kCorners, kCorners, GL_STATIC_DRAW);
        glEnableVertexAttribArray(0);
        glVertexAttribPointer(0, 2, GL_FLOAT, GL_FALSE, 2 * sizeof(GLfloat), nullptr);
        return GlOk("BuildQuad");
    }

    CProgram m_program;
    CVertexArray m_vertexArray;
    CBuffer m_vertexBuffer;
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

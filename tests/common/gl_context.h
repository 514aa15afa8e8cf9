// A test fixture with a current headless OpenGL context and a framebuffer of
// Width x Height. Skips only when no EGL display exists; any later failure
// fails the test.
#pragma once

#include <epoxy/gl.h>
#include <gtest/gtest.h>

#include "lumets/host/headless_gl.h"

namespace lumets::test {

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

    host::CHeadlessGl m_gl;
};

}  // namespace lumets::test

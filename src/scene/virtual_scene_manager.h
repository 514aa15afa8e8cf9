// CVirtualSceneManager: one movie played into one OpenGL texture.
#pragma once

#include "lumets/virtual_scene_manager.h"
#include "lumets_platform/lock.h"

namespace lumets {

// Placeholder until the host's player and GL libraries are declared: no
// player and no texture are made, so nothing plays and the texture stays 0.
class CVirtualSceneManager final : public IVirtualSceneManager {
  public:
    CVirtualSceneManager() = default;
    ~CVirtualSceneManager() override = default;

    void OpenScene(const char16_t*, int32_t) override { CAutoLock lock(&m_lock); }
    void StopScene() override { CAutoLock lock(&m_lock); }
    bool IsScenePlaying() override { return false; }
    void RenderScene(int32_t, int32_t) override {}
    uint32_t GetSceneTexture() override { return m_texture; }

  private:
    CLock m_lock;
    uint32_t m_texture = 0;
};

}  // namespace lumets

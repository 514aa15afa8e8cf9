// CVirtualSceneManager: one movie, the scene, played by the host's media
// player and rendered into one OpenGL texture that the manager owns.
//
// OpenScene, StopScene and the destructor hold m_lock; IsScenePlaying,
// RenderScene and GetSceneTexture take none: the player lives from the first
// OpenScene to the destructor. RenderScene and the destructor make GL calls
// and belong on the host's GL thread.
#pragma once

#include <atomic>
#include <cstdint>

#include "lumets/host/flash_player.h"
#include "lumets/host/gl_objects.h"
#include "lumets/virtual_scene_manager.h"
#include "lumets_platform/lock.h"

namespace lumets {

class CVirtualSceneManager final : public IVirtualSceneManager {
  public:
    CVirtualSceneManager() = default;
    ~CVirtualSceneManager() override;

    CVirtualSceneManager(const CVirtualSceneManager&) = delete;
    CVirtualSceneManager& operator=(const CVirtualSceneManager&) = delete;

    // Makes the player on the first call, then opens and plays path when it
    // names an existing file; otherwise the scene playing goes on.
    void OpenScene(const char16_t* path, int32_t reserved) override;
    void StopScene() override;
    bool IsScenePlaying() override;
    // Makes the texture and the pixel-buffer object on the first call, then
    // lets the player put its current frame into the texture.
    void RenderScene(int32_t reserved1, int32_t reserved2) override;
    uint32_t GetSceneTexture() override { return m_texture.load(std::memory_order_acquire); }

  private:
    // Written once under m_lock, read without it.
    std::atomic<IFlashPlayer*> m_flashPlayer{nullptr};
    CLock m_lock;
    IPBO* m_pbo = nullptr;  // the GL thread only
    // Made on the GL thread; its name may be read from any.
    std::atomic<GLuint> m_texture{0};
};

}  // namespace lumets

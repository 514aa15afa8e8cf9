#include "scene/virtual_scene_manager.h"

#include <epoxy/gl.h>

#include "lumets_common/gl_owners.h"
#include "lumets_platform/utf16.h"

namespace lumets {

CVirtualSceneManager::~CVirtualSceneManager() {
    {
        CAutoLock lock(&m_lock);
        if (IFlashPlayer* player = m_flashPlayer.exchange(nullptr)) {
            player->Stop();
            DeleteFlashPlayer(player);
        }
    }
    if (const GLuint texture = m_texture.exchange(0); texture != 0) {
        gl::TextureKind::Delete(texture);
    }
    if (m_pbo != nullptr) {
        CGLObjectFactory::DestroyPBO(m_pbo);
        m_pbo = nullptr;
    }
}

void CVirtualSceneManager::OpenScene(const char16_t* path, int32_t) {
    // Opened before the lock that rendering takes; the Open below finds it.
    if (path != nullptr && platform::PathFileExists(path)) {
        host::PrepareMovie(path);
    }
    CAutoLock lock(&m_lock);
    IFlashPlayer* player = m_flashPlayer.load();
    if (player == nullptr) {
        player = CreateFlashPlayer();
        m_flashPlayer = player;
    }
    if (player != nullptr && path != nullptr && platform::PathFileExists(path)) {
        player->Open(path, 0, true);
    }
}

void CVirtualSceneManager::StopScene() {
    CAutoLock lock(&m_lock);
    if (IFlashPlayer* player = m_flashPlayer.load()) {
        player->Stop();
    }
}

bool CVirtualSceneManager::IsScenePlaying() {
    IFlashPlayer* player = m_flashPlayer.load();
    return player != nullptr && player->IsPlaying();
}

void CVirtualSceneManager::RenderScene(int32_t, int32_t) {
    if (m_texture.load(std::memory_order_relaxed) == 0) {
        m_texture.store(CGLObjectFactory::CreateTexture(), std::memory_order_release);
    }
    if (m_pbo == nullptr) {
        m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
    }
    if (IFlashPlayer* player = m_flashPlayer.load()) {
        uint32_t width = 0;
        uint32_t height = 0;
        player->RenderToTexture(m_texture.load(std::memory_order_relaxed), &width, &height, m_pbo);
    }
}

}  // namespace lumets

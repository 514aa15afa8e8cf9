// IVirtualSceneManager: one movie rendered into one OpenGL texture.
#pragma once

#include <cstdint>

#include "lumets/export.h"

// The order of the operations is the virtual-table layout the host calls
// through; never reorder, insert or remove one.
class LUMETS_API IVirtualSceneManager {
  public:
    // The second argument is part of the interface and is not read.
    virtual void OpenScene(const char16_t* path, int32_t reserved) = 0;
    virtual void StopScene() = 0;
    virtual bool IsScenePlaying() = 0;
    // GL thread only. Both arguments are part of the interface and are not read.
    virtual void RenderScene(int32_t reserved1, int32_t reserved2) = 0;
    // 0 before the first RenderScene, then the same name for the object's life.
    virtual uint32_t GetSceneTexture() = 0;
    virtual ~IVirtualSceneManager();

  protected:
    IVirtualSceneManager();

  public:
    IVirtualSceneManager(const IVirtualSceneManager&);
    IVirtualSceneManager& operator=(const IVirtualSceneManager&);
};

LUMETS_API IVirtualSceneManager* CreateVirtualSceneManager();
// A null pointer is ignored. Destroy on the GL thread: it deletes a texture.
LUMETS_API void DeleteVirtualSceneManager(IVirtualSceneManager* manager);

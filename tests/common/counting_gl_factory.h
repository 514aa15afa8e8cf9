// Counts the textures and pixel-buffer objects made (and the buffers
// destroyed) through the host library's factory hook, passing every call on
// to the real factory, for as long as it lives.
#pragma once

#include <atomic>

#include "lumets/host/gl_objects.h"

namespace lumets::test {

class CountingGlFactory {
  public:
    CountingGlFactory() {
        textures = 0;
        buffers = 0;
        nullDestroyed = 0;
        refuseBuffers = false;
        static const host::GLObjectFactory real = host::RealGLObjectFactory();
        static const host::GLObjectFactory counting{[] {
                                                        ++textures;
                                                        return real.createTexture();
                                                    },
                                                    [](EnumPBOType type, uint32_t bits) {
                                                        if (refuseBuffers) {
                                                            return static_cast<IPBO*>(nullptr);
                                                        }
                                                        ++buffers;
                                                        return real.createPBO(type, bits);
                                                    },
                                                    [](IPBO* pbo) {
                                                        --buffers;
                                                        nullDestroyed += pbo == nullptr;
                                                        real.destroyPBO(pbo);
                                                    }};
        host::SetGLObjectFactory(&counting);
    }
    ~CountingGlFactory() { host::SetGLObjectFactory(nullptr); }
    CountingGlFactory(const CountingGlFactory&) = delete;
    CountingGlFactory& operator=(const CountingGlFactory&) = delete;

    // Textures made, and buffers made less those destroyed.
    static inline std::atomic<int> textures{0};
    static inline std::atomic<int> buffers{0};
    // Destroy calls for no buffer at all; and a factory that makes none.
    static inline std::atomic<int> nullDestroyed{0};
    static inline std::atomic<bool> refuseBuffers{false};
};

}  // namespace lumets::test

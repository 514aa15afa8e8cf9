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
        static const host::GLObjectFactory real = host::RealGLObjectFactory();
        static const host::GLObjectFactory counting{[] {
                                                        ++textures;
                                                        return real.createTexture();
                                                    },
                                                    [](EnumPBOType type, uint32_t bits) {
                                                        ++buffers;
                                                        return real.createPBO(type, bits);
                                                    },
                                                    [](IPBO* pbo) {
                                                        --buffers;
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
};

}  // namespace lumets::test

// A factory pair that tests can replace at run time (a scripted player, a
// recording combiner); null restores the real pair.
#pragma once

#include <mutex>

namespace lumets::host {

template <typename T>
class CFactoryHook {
  public:
    using Create = T* (*)();
    using Destroy = void (*)(T*);

    CFactoryHook(Create realCreate, Destroy realDestroy)
        : m_realCreate(realCreate),
          m_realDestroy(realDestroy),
          m_create(realCreate),
          m_destroy(realDestroy) {}

    T* Make() {
        Create create;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            create = m_create;
        }
        return create();
    }

    // Null is ignored.
    void Free(T* object) {
        if (object == nullptr) {
            return;
        }
        Destroy destroy;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            destroy = m_destroy;
        }
        destroy(object);
    }

    void Replace(Create create, Destroy destroy) {
        std::lock_guard<std::mutex> lock(m_mutex);
        const bool restore = create == nullptr || destroy == nullptr;
        m_create = restore ? m_realCreate : create;
        m_destroy = restore ? m_realDestroy : destroy;
    }

  private:
    const Create m_realCreate;
    const Destroy m_realDestroy;
    std::mutex m_mutex;
    Create m_create;
    Destroy m_destroy;
};

}  // namespace lumets::host

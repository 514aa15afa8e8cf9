// CLock: a recursive lock (the owning thread may take it again and must
// release it as often). CAutoLock holds one for a scope.
#pragma once

#include <mutex>

namespace lumets {

class CLock {
  public:
    CLock() = default;
    CLock(const CLock&) = delete;
    CLock& operator=(const CLock&) = delete;

    void Lock() { m_mutex.lock(); }
    void Unlock() { m_mutex.unlock(); }

  private:
    std::recursive_mutex m_mutex;
};

class CAutoLock {
  public:
    explicit CAutoLock(CLock* lock) : m_lock(lock) {
        if (m_lock != nullptr) {
            m_lock->Lock();
        }
    }
    ~CAutoLock() {
        if (m_lock != nullptr) {
            m_lock->Unlock();
        }
    }
    CAutoLock(const CAutoLock&) = delete;
    CAutoLock& operator=(const CAutoLock&) = delete;

  private:
    CLock* m_lock;
};

}  // namespace lumets

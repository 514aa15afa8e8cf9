// CLock: a recursive lock (the owning thread may take it again and must
// release it as often). CAutoLock holds one for a scope.
//
// Lock hierarchy. A thread that holds a lock of one level takes only locks of
// later levels, never an earlier one:
//
//   1. the subtitle manager's lock (CLumetManager::m_lock); held across calls
//      into play queues and items, including the joins of item threads;
//      the scene manager's lock (CVirtualSceneManager::m_lock) is its peer
//      and is never held together with it;
//   1a. a play queue's lock (CLumetObjsPlayer::m_lock). It guards the queue's
//      descriptions and its items (the vector and what its entries point
//      to), which the host's thread changes and the threads that end turns
//      read and change; held while items are started or given their turn,
//      never while pausing or waiting for a thread. An item is destroyed
//      only after its thread has ended and outside this lock;
//   2. an item's five layer locks (m_flashLock, m_textPosLock, m_playerLock,
//      m_textLock, m_backgroundLock), in the orders the item documents;
//   3. a text renderer's lock (CTextRenderer::m_lock);
//   4. the process-wide font mutex (FontSystem::Lock), held only while fonts
//      or shared layout state are touched;
//   5. leaves that never call out while held: the logger's output mutex, the
//      host library's factory hooks and scaled-frame cache, and the time
//      source's scheduler mutex.
//
// An item's playing thread never takes the manager's lock. No library lock is
// held while the time source is advanced (lumets::AdvanceBy): the advance
// waits for every library thread to block again, and a thread blocked on a
// lock held by the advancing thread never would.
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

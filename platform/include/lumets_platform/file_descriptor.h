// CFileDescriptor: the owning holder of a POSIX file descriptor, closed once
// when it goes out of scope; a negative descriptor is an empty holder.
#pragma once

#include <unistd.h>

namespace lumets::platform {

class CFileDescriptor {
  public:
    explicit CFileDescriptor(int fd) : m_fd(fd) {}
    ~CFileDescriptor() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    CFileDescriptor(const CFileDescriptor&) = delete;
    CFileDescriptor& operator=(const CFileDescriptor&) = delete;
    int Get() const { return m_fd; }

  private:
    int m_fd;
};

}  // namespace lumets::platform

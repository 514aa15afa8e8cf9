#include "lumets_platform/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "lumets_platform/file_descriptor.h"

namespace lumets::platform {

bool ReadRegularFile(const char* path, size_t maxBytes,
                     const std::function<uint8_t*(size_t)>& allocate) {
    if (path == nullptr || *path == '\0' || !allocate) {
        return false;
    }
    // Non-blocking so that naming a FIFO cannot hang the caller before the
    // regular-file test below refuses it.
    const CFileDescriptor file(open(path, O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK));
    struct stat info {};
    if (file.Get() < 0 || fstat(file.Get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_size <= 0 || static_cast<uint64_t>(info.st_size) > maxBytes) {
        return false;
    }
    const size_t size = static_cast<size_t>(info.st_size);
    uint8_t* const block = allocate(size);
    if (block == nullptr) {
        return false;
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(file.Get(), block + done, size - done);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            return false;  // error, or the file shrank while we read it
        }
        done += static_cast<size_t>(got);
    }
    return true;
}

}  // namespace lumets::platform

#include "paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace lumets::playback {

std::string ErrnoText(int code) {
    char text[256] = {};
    // The GNU form: it returns the text, in text or in a static string.
    return strerror_r(code, text, sizeof text);
}

std::string WhyNotAFile(const std::string& path) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        const int code = errno;
        if (code == ENOENT || code == ENOTDIR) {
            return "not found";
        }
        if (code == ELOOP) {
            return "is a symbolic link loop";
        }
        return "cannot be read: " + ErrnoText(code);
    }
    if (S_ISDIR(info.st_mode)) {
        return "is a folder, not a file";
    }
    if (S_ISFIFO(info.st_mode)) {
        return "is a named pipe (FIFO), not a file";
    }
    if (S_ISCHR(info.st_mode) || S_ISBLK(info.st_mode)) {
        return "is a device, not a file";
    }
    if (S_ISSOCK(info.st_mode)) {
        return "is a socket, not a file";
    }
    if (!S_ISREG(info.st_mode)) {
        return "is not a regular file";
    }
    if (access(path.c_str(), R_OK) != 0) {
        return "cannot be read: " + ErrnoText(errno);
    }
    return {};
}

}  // namespace lumets::playback

#include "files.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

#include "lumets_platform/file_descriptor.h"

namespace lumets::tool {

std::string LowerExtension(const std::string& path) {
    std::string extension = std::filesystem::path(path).extension().string();
    std::transform(extension.begin(), extension.end(), extension.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return extension;
}

CPendingFile::~CPendingFile() {
    Discard();
}

bool CPendingFile::Create(const std::string& path, std::string* error) {
    Discard();
    namespace fs = std::filesystem;
    const fs::path target(path);
    const fs::path folder = target.parent_path();
    std::error_code code;
    if (!folder.empty() && !fs::is_directory(folder, code)) {
        fs::create_directories(folder, code);
        if (code) {
            *error = "cannot make the folder " + folder.string() + ": " + code.message();
            return false;
        }
    }
    // Hidden, and named after the process so that two runs never share one.
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::string name = "." + target.filename().string() + "." + std::to_string(getpid()) +
                                 "-" + std::to_string(attempt) + ".part";
        const std::string temporary = (folder / name).string();
        const platform::CFileDescriptor file(
            open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (file.Get() >= 0) {
            m_path = path;
            m_temporary = temporary;
            return true;
        }
        if (errno != EEXIST) {
            *error = "cannot write beside it: " + ErrnoText(errno);
            return false;
        }
    }
    *error = "cannot find a free temporary name beside it";
    return false;
}

bool CPendingFile::Commit(std::string* error) {
    if (m_temporary.empty()) {
        *error = "nothing to commit";
        return false;
    }
    if (std::rename(m_temporary.c_str(), m_path.c_str()) != 0) {
        *error = "cannot move it into place: " + ErrnoText(errno);
        return false;
    }
    m_temporary.clear();
    return true;
}

void CPendingFile::Discard() {
    if (!m_temporary.empty()) {
        std::remove(m_temporary.c_str());
        m_temporary.clear();
    }
}

int WriteAll(int fd, const uint8_t* data, size_t size) {
    for (size_t done = 0; done < size;) {
        const ssize_t n = write(fd, data + done, size - done);
        if (n < 0 && errno == EAGAIN) {
            pollfd wait{fd, POLLOUT, 0};
            poll(&wait, 1, -1);
            continue;
        }
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return n < 0 ? errno : EIO;
        }
        done += static_cast<size_t>(n);
    }
    return 0;
}

bool WriteWholeFile(const std::string& path, const uint8_t* data, size_t size, std::string* error) {
    CPendingFile file;
    if (!file.Create(path, error)) {
        return false;
    }
    const platform::CFileDescriptor out(
        open(file.TemporaryPath().c_str(), O_WRONLY | O_TRUNC | O_CLOEXEC));
    if (out.Get() < 0) {
        *error = "cannot write: " + ErrnoText(errno);
        return false;
    }
    if (const int code = WriteAll(out.Get(), data, size); code != 0) {
        *error = "cannot write: " + ErrnoText(code);
        return false;
    }
    return file.Commit(error);
}

}  // namespace lumets::tool

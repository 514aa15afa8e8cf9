// Files the program reads and writes: why a path is not a file it can read,
// and outputs that appear at their path only when complete.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "paths.h"

namespace lumets::tool {

using playback::ErrnoText;
using playback::MediaUse;
using playback::WhyNotAFile;

// The extension of path in lower case, with its dot: ".mp4"; empty without one.
std::string LowerExtension(const std::string& path);

// An output file written under a temporary name beside its path, so that a
// reader never sees half of it: Commit renames it into place. Until then,
// and on destruction, the temporary file is removed, and the path keeps
// whatever it held before.
class CPendingFile {
  public:
    CPendingFile() = default;
    ~CPendingFile();
    CPendingFile(const CPendingFile&) = delete;
    CPendingFile& operator=(const CPendingFile&) = delete;

    // Makes the temporary file (and the folders above path). False, with the
    // reason in *error, when it cannot.
    bool Create(const std::string& path, std::string* error);
    const std::string& TemporaryPath() const { return m_temporary; }
    // Moves the finished file to its path. False, with the reason, when it cannot.
    bool Commit(std::string* error);
    // Removes the temporary file now.
    void Discard();

  private:
    std::string m_path;
    std::string m_temporary;
};

// Writes all of data to fd, carrying on after interruptions and waiting while
// fd would block. 0, or the errno of the failure (EPIPE: the reader has gone).
int WriteAll(int fd, const uint8_t* data, size_t size);

// Writes size bytes as the whole file at path, through a CPendingFile. False,
// with the reason in *error, when it cannot; path is then left as it was.
bool WriteWholeFile(const std::string& path, const uint8_t* data, size_t size, std::string* error);

}  // namespace lumets::tool

// Files for tests: a scratch folder removed with its contents, whole-file
// reads and writes, and shell commands (ffmpeg makes real media at test time).
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace lumets::test {

class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "lumets-test-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) {
            m_path = pattern;
        }
    }
    ~ScratchDir() {
        std::error_code ignored;
        if (!m_path.empty()) {
            std::filesystem::remove_all(m_path, ignored);
        }
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    bool Ok() const { return !m_path.empty(); }
    const std::filesystem::path& Path() const { return m_path; }
    std::string File(const std::string& name) const { return (m_path / name).string(); }
    // The same path as the library's UTF-16 paths take it (the folder is ASCII).
    std::u16string File16(const std::string& name) const {
        const std::string path = File(name);
        return std::u16string(path.begin(), path.end());
    }

  private:
    std::filesystem::path m_path;
};

inline std::string Quote(const std::string& text) {
    return "'" + text + "'";
}

// Runs a shell command; true when it exits with 0.
inline bool RunCommand(const std::string& command) {
    return std::system(command.c_str()) == 0;
}

// True when the whole file was written.
inline bool WriteBytes(const std::string& file, const std::vector<uint8_t>& bytes) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return out.good();
}

inline std::vector<uint8_t> ReadBytes(const std::string& file) {
    std::ifstream in(file, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// What the library writes to standard output (its console log records)
// while body runs.
inline std::string CaptureStdout(const std::string& file, const std::function<void()>& body) {
    std::fflush(stdout);
    const int saved = dup(1);
    if (saved < 0 || std::freopen(file.c_str(), "w", stdout) == nullptr) {
        return {};
    }
    body();
    std::fflush(stdout);
    dup2(saved, 1);
    close(saved);
    const std::vector<uint8_t> bytes = ReadBytes(file);
    return std::string(bytes.begin(), bytes.end());
}

}  // namespace lumets::test

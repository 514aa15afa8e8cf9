// Runs the fuzz target over files and directories of inputs, for builds
// without libFuzzer: the test command replays the corpus this way.
// Usage: fuzz_image_loader [--mutations N] PATH...  (a directory is read one
// level deep). With --mutations, every input is also replayed cut at about a
// hundred lengths and N times with a few bytes changed, from a fixed seed, so
// a failure repeats.

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

// xorshift32: small, and the same sequence on every machine.
uint32_t Next(uint32_t& state) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    return state;
}

bool Replay(const std::filesystem::path& file, int mutations, uint32_t& seed) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    if (mutations <= 0 || bytes.empty()) {
        return true;
    }
    // Each prefix is copied, so reading past it shows under the sanitizers.
    for (size_t length = 0; length < bytes.size(); length += 1 + bytes.size() / 97) {
        const std::vector<uint8_t> prefix(bytes.begin(), bytes.begin() + length);
        LLVMFuzzerTestOneInput(prefix.data(), prefix.size());
    }
    for (int round = 0; round < mutations; ++round) {
        std::vector<uint8_t> changed = bytes;
        for (uint32_t k = 1 + Next(seed) % 8; k > 0; --k) {
            changed[Next(seed) % changed.size()] = static_cast<uint8_t>(Next(seed));
        }
        LLVMFuzzerTestOneInput(changed.data(), changed.size());
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    int first = 1;
    int mutations = 0;
    if (argc > 2 && std::string(argv[1]) == "--mutations") {
        mutations = std::atoi(argv[2]);
        first = 3;
    }
    if (argc <= first) {
        std::fprintf(stderr, "usage: %s [--mutations N] FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    uint32_t seed = 0x1234567u;
    size_t count = 0;
    bool ok = true;
    for (int i = first; i < argc; ++i) {
        const std::filesystem::path path(argv[i]);
        std::vector<std::filesystem::path> files;
        std::error_code error;
        if (std::filesystem::is_directory(path, error)) {
            for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
                if (entry.is_regular_file()) {
                    files.push_back(entry.path());
                }
            }
            std::sort(files.begin(), files.end());
        } else {
            files.push_back(path);
        }
        for (const auto& file : files) {
            ok = Replay(file, mutations, seed) && ok;
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return ok && count > 0 ? 0 : 1;
}

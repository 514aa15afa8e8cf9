// Runs the fuzz target over files and directories of inputs, for builds
// without libFuzzer: the test command replays the corpus this way.
// Usage: fuzz_image_loader PATH...  (a directory is read one level deep)

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace {

bool Replay(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "cannot read %s\n", file.c_str());
        return false;
    }
    const std::vector<uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
    LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s FILE_OR_DIRECTORY...\n", argv[0]);
        return 2;
    }
    size_t count = 0;
    bool ok = true;
    for (int i = 1; i < argc; ++i) {
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
            ok = Replay(file) && ok;
            ++count;
        }
    }
    std::printf("replayed %zu inputs\n", count);
    return ok && count > 0 ? 0 : 1;
}

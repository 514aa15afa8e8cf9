#include "paths.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "lumets/host/flash_player.h"
#include "lumets_platform/utf16.h"

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

// Media as the library plays it: a movie must open in the host's player, a
// picture must be a readable file (the banner's loader decodes it later).
std::string WhyNotPlayable(const std::string& path, MediaUse use) {
    std::string why = WhyNotAFile(path);
    if (!why.empty() || use != MediaUse::Movie) {
        return why;
    }
    IFlashPlayer* player = CreateFlashPlayer();
    if (player == nullptr) {
        return "no movie player";
    }
    player->Open(platform::Utf8ToU16(path).c_str(), 0, false);
    uint32_t width = 0;
    uint32_t height = 0;
    const bool playable = player->GetSize(&width, &height) && width > 0 && height > 0;
    DeleteFlashPlayer(player);
    return playable ? std::string()
                    : "holds no movie that can be played (an animated PNG, GIF or WebP, a WebM "
                      "or an MP4)";
}

std::string SceneFolder(const std::string& scenePath) {
    const std::filesystem::path folder = std::filesystem::path(scenePath).parent_path();
    return folder.empty() ? "." : folder.string();
}

}  // namespace lumets::playback

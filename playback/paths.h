// What a scene may name: why a path is not a file that can be read.
#pragma once

#include <string>

#include "lumets/export.h"

namespace lumets::playback {

// What a scene does with a media file.
enum class MediaUse {
    Movie,    // played by the host's movie player: a movie layer, the scene movie
    Picture,  // decoded by FFmpeg: a banner's picture, a backdrop picture or video
};

// Empty when path names a regular file; otherwise why not, in words: "not
// found", "is a folder, not a file", "is a named pipe (FIFO), not a file",
// "is a symbolic link loop", "cannot be read: Permission denied", ...
LUMETS_SCENE_API std::string WhyNotAFile(const std::string& path);

// Media as the library plays it: empty, or why not. A movie must open in the
// host's player; a picture must be a readable file (the banner's loader
// decodes it when the banner goes up).
LUMETS_SCENE_API std::string WhyNotPlayable(const std::string& path, MediaUse use);

// The folder a scene file's relative media paths start from: the file's
// own, "." for a bare name.
LUMETS_SCENE_API std::string SceneFolder(const std::string& scenePath);

// The text of an errno value.
LUMETS_SCENE_API std::string ErrnoText(int code);

}  // namespace lumets::playback

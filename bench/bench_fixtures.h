// What the benchmark programs share: a scratch folder whose media ffmpeg
// makes, the mixed CJK and Latin line with its outlined gradient style, and
// a subtitle's text record.
#pragma once

#include <lumets/records.h>
#include <stdlib.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

namespace lumets::bench {

// Removed with its files when it goes.
class ScratchDir {
  public:
    ScratchDir() {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "lumets-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            std::abort();
        }
        m_path = pattern;
    }
    ~ScratchDir() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;

    // Runs ffmpeg with arguments, writing the file name in the folder; its
    // path. A benchmark without its media measures nothing: ends the run.
    std::string Ffmpeg(const std::string& name, const std::string& arguments) const {
        const std::string path = (m_path / name).string();
        if (std::system(("ffmpeg -nostdin -v error -y " + arguments + " '" + path + "'").c_str()) !=
            0) {
            std::abort();
        }
        return path;
    }

  private:
    std::filesystem::path m_path;
};

// 40 characters mixing CJK and Latin.
inline constexpr char16_t kMixedLine[] = u"Live 直播 subtitle 字幕 test 测试 line 行 ok";

inline TextStyle GradientOutlineStyle() {
    TextStyle style;
    style.fontSize = 24;
    style.fillColor1 = 0xFF4000;
    style.fillColor2 = 0x2040FF;
    style.fillAngle = 30.0f;
    style.outline = 1;
    style.outlineWidth = 2.0f;
    return style;
}

// A movie record for a looping two-second test pattern of the given size
// ("640x360"), made in dir; clip and position are the caller's.
inline SwfPart PatternMovie(const ScratchDir& dir, const std::string& size) {
    const std::string movie = dir.Ffmpeg(
        "movie-" + size + ".apng", "-f lavfi -i testsrc2=s=" + size + ":d=2:r=30 -plays 0 -f apng");
    SwfPart swf{};
    std::copy(movie.begin(), movie.end(), swf.szPath);  // the temp folder is ASCII
    return swf;
}

// A text record for text in white with a 2-pixel outline; the geometry is
// the caller's.
inline std::unique_ptr<TextPart> OutlinedText(const char16_t* text, int32_t fontSize) {
    auto part = std::make_unique<TextPart>();
    std::memcpy(part->text, text, std::char_traits<char16_t>::length(text) * sizeof(char16_t));
    part->style.fontSize = fontSize;
    part->style.fillColor1 = part->style.fillColor2 = 0xFFFFFF;
    part->style.outline = 1;
    part->style.outlineWidth = 2;
    return part;
}

}  // namespace lumets::bench

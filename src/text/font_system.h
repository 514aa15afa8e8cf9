// The process-wide font machinery: the library's own fontconfig
// configuration and one Pango font map built on it.
//
// Pango and fontconfig objects are not safe to share between threads, and
// renderers run on many threads (the items' playing threads and the host's),
// so every use of the font map happens under Lock().
#pragma once

#include <mutex>
#include <string>

#include "text/fontconfig_handles.h"
#include "text/pango_handles.h"

namespace lumets {

class FontSystem {
  public:
    // Built on first use; lives until the library is unloaded.
    static FontSystem& Get();

    std::unique_lock<std::mutex> Lock() { return std::unique_lock<std::mutex>(m_mutex); }

    // Null when no configuration could be loaded (then no text is drawn).
    PangoFontMap* FontMap() const { return m_fontMap.get(); }

    // True when fontconfig's best match for the family really is that family,
    // compared without letter case. Call under Lock().
    bool HasFamily(const std::string& familyUtf8) const;

    FontSystem(const FontSystem&) = delete;
    FontSystem& operator=(const FontSystem&) = delete;

  private:
    FontSystem();
    ~FontSystem() = default;

    std::mutex m_mutex;
    FcConfigPtr m_config;
    GObjectPtr<PangoFontMap> m_fontMap;
};

// The face every text falls back to when its own face cannot be had.
inline constexpr char kFallbackFace[] = "微软雅黑";

}  // namespace lumets

#include "text/font_system.h"

#include <fontconfig/fontconfig.h>
#include <pango/pangocairo.h>
#include <pango/pangofc-fontmap.h>

#include "text/fonts_conf.h"

namespace lumets {

FontSystem& FontSystem::Get() {
    static FontSystem instance;
    return instance;
}

FontSystem::FontSystem() {
    FcConfig* config = FcConfigCreate();
    if (config == nullptr) {
        return;
    }
    if (!FcConfigParseAndLoadFromMemory(config, reinterpret_cast<const FcChar8*>(kFontsConf),
                                        FcTrue) ||
        !FcConfigBuildFonts(config)) {
        FcConfigDestroy(config);
        return;
    }
    m_config = config;
    PangoFontMap* map = pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT);
    if (map == nullptr) {
        return;
    }
    pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(map), config);
    m_fontMap = map;
}

FontSystem::~FontSystem() {
    if (m_fontMap != nullptr) {
        g_object_unref(m_fontMap);
    }
    if (m_config != nullptr) {
        FcConfigDestroy(m_config);
    }
}

bool FontSystem::HasFamily(const std::string& familyUtf8) const {
    if (m_config == nullptr || familyUtf8.empty()) {
        return false;
    }
    FcPattern* pattern = FcPatternCreate();
    if (pattern == nullptr) {
        return false;
    }
    FcPatternAddString(pattern, FC_FAMILY, reinterpret_cast<const FcChar8*>(familyUtf8.c_str()));
    FcConfigSubstitute(m_config, pattern, FcMatchPattern);
    FcDefaultSubstitute(pattern);
    FcResult result = FcResultNoMatch;
    FcPattern* match = FcFontMatch(m_config, pattern, &result);
    FcPatternDestroy(pattern);
    if (match == nullptr) {
        return false;
    }
    // A face has several names (one per language); any of them counts.
    bool found = false;
    FcChar8* family = nullptr;
    for (int i = 0; FcPatternGetString(match, FC_FAMILY, i, &family) == FcResultMatch; ++i) {
        if (FcStrCmpIgnoreCase(family, reinterpret_cast<const FcChar8*>(familyUtf8.c_str())) == 0) {
            found = true;
            break;
        }
    }
    FcPatternDestroy(match);
    return found;
}

}  // namespace lumets

#include "text/font_system.h"

#include <pango/pangocairo.h>
#include <pango/pangofc-fontmap.h>

#include "text/fonts_conf.h"

namespace lumets {

FontSystem& FontSystem::Get() {
    static FontSystem instance;
    return instance;
}

FontSystem::FontSystem() {
    FcConfigPtr config(FcConfigCreate());
    if (!config ||
        !FcConfigParseAndLoadFromMemory(config.get(), reinterpret_cast<const FcChar8*>(kFontsConf),
                                        FcTrue) ||
        !FcConfigBuildFonts(config.get())) {
        return;
    }
    m_config = std::move(config);
    GObjectPtr<PangoFontMap> map(pango_cairo_font_map_new_for_font_type(CAIRO_FONT_TYPE_FT));
    if (!map) {
        return;
    }
    pango_fc_font_map_set_config(PANGO_FC_FONT_MAP(map.get()), m_config.get());
    m_fontMap = std::move(map);
}

bool FontSystem::HasFamily(const std::string& familyUtf8) const {
    if (!m_config || familyUtf8.empty()) {
        return false;
    }
    FcPatternPtr pattern(FcPatternCreate());
    if (!pattern) {
        return false;
    }
    FcPatternAddString(pattern.get(), FC_FAMILY,
                       reinterpret_cast<const FcChar8*>(familyUtf8.c_str()));
    FcConfigSubstitute(m_config.get(), pattern.get(), FcMatchPattern);
    FcDefaultSubstitute(pattern.get());
    FcResult result = FcResultNoMatch;
    const FcPatternPtr match(FcFontMatch(m_config.get(), pattern.get(), &result));
    if (!match) {
        return false;
    }
    // A face has several names (one per language); any of them counts.
    FcChar8* family = nullptr;
    for (int i = 0; FcPatternGetString(match.get(), FC_FAMILY, i, &family) == FcResultMatch; ++i) {
        if (FcStrCmpIgnoreCase(family, reinterpret_cast<const FcChar8*>(familyUtf8.c_str())) == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace lumets

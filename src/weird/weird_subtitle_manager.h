// CWeirdSubtitleManager: a façade over the three fixed-layout banners.
#pragma once

#include "lumets/weird_subtitle_manager.h"

namespace lumets {

// Placeholder until the banners exist: every operation does nothing, so a
// compose call leaves the frame untouched and DrawOmbrelToTexture leaves its
// outputs as they were, as for banners that are not ready yet.
class CWeirdSubtitleManager final : public IWeirdSubtitleManager {
  public:
    CWeirdSubtitleManager() = default;
    ~CWeirdSubtitleManager() override = default;

    void SetTavrinTexts(const char16_t*, const char16_t*, const char16_t*, const char16_t*,
                        const char16_t*, const char16_t*) override {}
    void LoadTavrinImages(const char16_t*, const char16_t*) override {}
    void ComposeTavrin(uint8_t*, int, int, const POINT*) override {}
    void SetQuellinTexts(const char16_t*, const char16_t*, int) override {}
    void LoadQuellinPlate(const char16_t*) override {}
    void ComposeQuellin(uint8_t*, int, int, const POINT*) override {}
    void SetOmbrelText(const char16_t*, int) override {}
    void LoadOmbrelImages(const char16_t*, const char16_t*) override {}
    void ComposeOmbrel(uint8_t*, int, int, const RECT*, float) override {}
    void DrawOmbrelToTexture(GLuint, int*, int*, IPBO*) override {}
};

}  // namespace lumets

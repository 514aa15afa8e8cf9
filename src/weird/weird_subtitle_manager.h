// CWeirdSubtitleManager: a façade over the three fixed-layout banners. Each
// operation hands its arguments unchanged to one banner, which does every
// check and all the work. No lock: the host serialises the calls of one
// manager; separate managers share nothing.
#pragma once

#include <memory>

#include "lumets/weird_subtitle_manager.h"
#include "weird/ombrel_game_subtitle.h"
#include "weird/quellin_game_subtitle.h"
#include "weird/tavrin_link_mic_subtitle.h"

namespace lumets {

class CWeirdSubtitleManager final : public IWeirdSubtitleManager {
  public:
    CWeirdSubtitleManager();
    ~CWeirdSubtitleManager() override;

    void SetTavrinTexts(const char16_t* text1, const char16_t* text2, const char16_t* text3,
                        const char16_t* text4, const char16_t* text5,
                        const char16_t* text6) override;
    void LoadTavrinImages(const char16_t* image1Path, const char16_t* image2Path) override;
    void ComposeTavrin(uint8_t* frame, int width, int height, const POINT* origin) override;
    void SetQuellinTexts(const char16_t* text1, const char16_t* text2, int reserved) override;
    void LoadQuellinPlate(const char16_t* platePath) override;
    void ComposeQuellin(uint8_t* frame, int width, int height, const POINT* origin) override;
    void SetOmbrelText(const char16_t* text, int fontSize) override;
    void LoadOmbrelImages(const char16_t* capsPath, const char16_t* middlePath) override;
    void ComposeOmbrel(uint8_t* frame, int width, int height, const RECT* rect,
                       float scale) override;
    void ComposeTavrinToFrame(const lumets_frame* frame, const POINT* origin) override;
    void ComposeQuellinToFrame(const lumets_frame* frame, const POINT* origin) override;
    void ComposeOmbrelToFrame(const lumets_frame* frame, const RECT* rect, float scale) override;
    void DrawOmbrelToTexture(GLuint texture, int* width, int* height, IPBO* pbo) override;

  private:
    // Made in this order, destroyed in the reverse one.
    std::unique_ptr<CTavrinLinkMicSubtitle> m_tavrin;
    std::unique_ptr<CQuellinGameSubtitle> m_quellin;
    std::unique_ptr<COmbrelGameSubtitle> m_ombrel;
};

}  // namespace lumets

#include "weird/weird_subtitle_manager.h"

#include "weird/banner_drawing.h"

namespace lumets {

CWeirdSubtitleManager::CWeirdSubtitleManager()
    : m_tavrin(std::make_unique<CTavrinLinkMicSubtitle>()),
      m_quellin(std::make_unique<CQuellinGameSubtitle>()),
      m_ombrel(std::make_unique<COmbrelGameSubtitle>()) {}

CWeirdSubtitleManager::~CWeirdSubtitleManager() {
    m_ombrel.reset();
    m_quellin.reset();
    m_tavrin.reset();
}

void CWeirdSubtitleManager::SetTavrinTexts(const char16_t* text1, const char16_t* text2,
                                           const char16_t* text3, const char16_t* text4,
                                           const char16_t* text5, const char16_t* text6) {
    if (m_tavrin) {
        m_tavrin->SetTexts(text1, text2, text3, text4, text5, text6);
    }
}

void CWeirdSubtitleManager::LoadTavrinImages(const char16_t* image1Path,
                                             const char16_t* image2Path) {
    if (m_tavrin) {
        m_tavrin->LoadImages(image1Path, image2Path);
    }
}

void CWeirdSubtitleManager::ComposeTavrin(uint8_t* frame, int width, int height,
                                          const POINT* origin) {
    if (m_tavrin) {
        m_tavrin->Compose(HostFrame(frame, width, height), origin);
    }
}

void CWeirdSubtitleManager::SetQuellinTexts(const char16_t* text1, const char16_t* text2,
                                            int reserved) {
    if (m_quellin) {
        m_quellin->SetTexts(text1, text2, reserved);
    }
}

void CWeirdSubtitleManager::LoadQuellinPlate(const char16_t* platePath) {
    if (m_quellin) {
        m_quellin->LoadPlate(platePath);
    }
}

void CWeirdSubtitleManager::ComposeQuellin(uint8_t* frame, int width, int height,
                                           const POINT* origin) {
    if (m_quellin) {
        m_quellin->Compose(HostFrame(frame, width, height), origin);
    }
}

void CWeirdSubtitleManager::SetOmbrelText(const char16_t* text, int fontSize) {
    if (m_ombrel) {
        m_ombrel->SetText(text, fontSize);
    }
}

void CWeirdSubtitleManager::LoadOmbrelImages(const char16_t* capsPath, const char16_t* middlePath) {
    if (m_ombrel) {
        m_ombrel->LoadImages(capsPath, middlePath);
    }
}

void CWeirdSubtitleManager::ComposeOmbrel(uint8_t* frame, int width, int height, const RECT* rect,
                                          float scale) {
    if (m_ombrel) {
        m_ombrel->Compose(HostFrame(frame, width, height), rect, scale);
    }
}

void CWeirdSubtitleManager::DrawOmbrelToTexture(GLuint texture, int* width, int* height,
                                                IPBO* pbo) {
    if (m_ombrel) {
        m_ombrel->DrawToTexture(texture, width, height, pbo);
    }
}

void CWeirdSubtitleManager::ComposeTavrinToFrame(const lumets_frame* frame, const POINT* origin) {
    if (m_tavrin && frame != nullptr) {
        m_tavrin->Compose(*frame, origin);
    }
}

void CWeirdSubtitleManager::ComposeQuellinToFrame(const lumets_frame* frame, const POINT* origin) {
    if (m_quellin && frame != nullptr) {
        m_quellin->Compose(*frame, origin);
    }
}

void CWeirdSubtitleManager::ComposeOmbrelToFrame(const lumets_frame* frame, const RECT* rect,
                                                 float scale) {
    if (m_ombrel && frame != nullptr) {
        m_ombrel->Compose(*frame, rect, scale);
    }
}

}  // namespace lumets

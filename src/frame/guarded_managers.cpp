#include "frame/guarded_managers.h"

#include <utility>

#include "log/logger.h"

namespace lumets {
namespace {

template <typename Interface>
using CGuarded = platform::CGuardedDecorator<ReportBoundaryFailure, Interface>;

class CGuardedLumetManager final : public CGuarded<ILumetManager> {
  public:
    using CGuardedDecorator::CGuardedDecorator;

    void AddSubtitle(const char16_t* id, const char16_t* group, const ItemDescription* items,
                     uint32_t count, int32_t x, int32_t y, bool loop, int32_t intervalMs) override {
        Forward(__func__, &ILumetManager::AddSubtitle, id, group, items, count, x, y, loop,
                intervalMs);
    }
    void RemoveSubtitle(const char16_t* id) override {
        Forward(__func__, &ILumetManager::RemoveSubtitle, id);
    }
    void RemoveAllSubtitles() override { Forward(__func__, &ILumetManager::RemoveAllSubtitles); }
    void TrimGroup(const char16_t* group, uint32_t keep) override {
        Forward(__func__, &ILumetManager::TrimGroup, group, keep);
    }
    bool GetPlayingInGroup(const char16_t* group, SubtitleRectEntry* entries,
                           uint32_t* count) override {
        return Forward(__func__, &ILumetManager::GetPlayingInGroup, group, entries, count);
    }
    bool HitTestGroup(const char16_t* group, int32_t x, int32_t y, char16_t* id,
                      RECT* rect) override {
        return Forward(__func__, &ILumetManager::HitTestGroup, group, x, y, id, rect);
    }
    bool GetSubtitleRect(const char16_t* id, RECT* rect) override {
        return Forward(__func__, &ILumetManager::GetSubtitleRect, id, rect);
    }
    bool GetSubtitlePosition(const char16_t* id, POINT* position) override {
        return Forward(__func__, &ILumetManager::GetSubtitlePosition, id, position);
    }
    void MoveSubtitle(const char16_t* id, int32_t x, int32_t y) override {
        Forward(__func__, &ILumetManager::MoveSubtitle, id, x, y);
    }
    void UpdateSubtitleText(const char16_t* id, const TextPart* text) override {
        Forward(__func__, &ILumetManager::UpdateSubtitleText, id, text);
    }
    void UpdateSubtitleBackground(const char16_t* id, const BackgroundPart* background) override {
        Forward(__func__, &ILumetManager::UpdateSubtitleBackground, id, background);
    }
    void DrawToBuffer(uint8_t* frame, uint32_t width, uint32_t height, float scale) override {
        Forward(__func__, &ILumetManager::DrawToBuffer, frame, width, height, scale);
    }
    void DrawToTarget(int32_t width, int32_t height, float scale) override {
        Forward(__func__, &ILumetManager::DrawToTarget, width, height, scale);
    }
    void ReleaseGpuResources() override { Forward(__func__, &ILumetManager::ReleaseGpuResources); }
    void DrawToFrame(const lumets_frame* frame, float scale) override {
        Forward(__func__, &ILumetManager::DrawToFrame, frame, scale);
    }
};

class CGuardedWeirdSubtitleManager final : public CGuarded<IWeirdSubtitleManager> {
  public:
    using CGuardedDecorator::CGuardedDecorator;

    void SetTavrinTexts(const char16_t* text1, const char16_t* text2, const char16_t* text3,
                        const char16_t* text4, const char16_t* text5,
                        const char16_t* text6) override {
        Forward(__func__, &IWeirdSubtitleManager::SetTavrinTexts, text1, text2, text3, text4, text5,
                text6);
    }
    void LoadTavrinImages(const char16_t* image1Path, const char16_t* image2Path) override {
        Forward(__func__, &IWeirdSubtitleManager::LoadTavrinImages, image1Path, image2Path);
    }
    void ComposeTavrin(uint8_t* frame, int width, int height, const POINT* origin) override {
        Forward(__func__, &IWeirdSubtitleManager::ComposeTavrin, frame, width, height, origin);
    }
    void SetQuellinTexts(const char16_t* text1, const char16_t* text2, int reserved) override {
        Forward(__func__, &IWeirdSubtitleManager::SetQuellinTexts, text1, text2, reserved);
    }
    void LoadQuellinPlate(const char16_t* platePath) override {
        Forward(__func__, &IWeirdSubtitleManager::LoadQuellinPlate, platePath);
    }
    void ComposeQuellin(uint8_t* frame, int width, int height, const POINT* origin) override {
        Forward(__func__, &IWeirdSubtitleManager::ComposeQuellin, frame, width, height, origin);
    }
    void SetOmbrelText(const char16_t* text, int fontSize) override {
        Forward(__func__, &IWeirdSubtitleManager::SetOmbrelText, text, fontSize);
    }
    void LoadOmbrelImages(const char16_t* capsPath, const char16_t* middlePath) override {
        Forward(__func__, &IWeirdSubtitleManager::LoadOmbrelImages, capsPath, middlePath);
    }
    void ComposeOmbrel(uint8_t* frame, int width, int height, const RECT* rect,
                       float scale) override {
        Forward(__func__, &IWeirdSubtitleManager::ComposeOmbrel, frame, width, height, rect, scale);
    }
    void DrawOmbrelToTexture(GLuint texture, int* width, int* height, IPBO* pbo) override {
        Forward(__func__, &IWeirdSubtitleManager::DrawOmbrelToTexture, texture, width, height, pbo);
    }
    void ComposeTavrinToFrame(const lumets_frame* frame, const POINT* origin) override {
        Forward(__func__, &IWeirdSubtitleManager::ComposeTavrinToFrame, frame, origin);
    }
    void ComposeQuellinToFrame(const lumets_frame* frame, const POINT* origin) override {
        Forward(__func__, &IWeirdSubtitleManager::ComposeQuellinToFrame, frame, origin);
    }
    void ComposeOmbrelToFrame(const lumets_frame* frame, const RECT* rect, float scale) override {
        Forward(__func__, &IWeirdSubtitleManager::ComposeOmbrelToFrame, frame, rect, scale);
    }
};

class CGuardedVirtualSceneManager final : public CGuarded<IVirtualSceneManager> {
  public:
    using CGuardedDecorator::CGuardedDecorator;

    void OpenScene(const char16_t* path, int32_t reserved) override {
        Forward(__func__, &IVirtualSceneManager::OpenScene, path, reserved);
    }
    void StopScene() override { Forward(__func__, &IVirtualSceneManager::StopScene); }
    bool IsScenePlaying() override {
        return Forward(__func__, &IVirtualSceneManager::IsScenePlaying);
    }
    void RenderScene(int32_t reserved1, int32_t reserved2) override {
        Forward(__func__, &IVirtualSceneManager::RenderScene, reserved1, reserved2);
    }
    uint32_t GetSceneTexture() override {
        return Forward(__func__, &IVirtualSceneManager::GetSceneTexture);
    }
};

}  // namespace

void ReportBoundaryFailure(const char* what, const char* why) {
    LUMETS_LOG(LogError, "%s failed: %s", what, why);
}

std::unique_ptr<ILumetManager> Guard(std::unique_ptr<ILumetManager> real) {
    return std::make_unique<CGuardedLumetManager>(std::move(real));
}

std::unique_ptr<IWeirdSubtitleManager> Guard(std::unique_ptr<IWeirdSubtitleManager> real) {
    return std::make_unique<CGuardedWeirdSubtitleManager>(std::move(real));
}

std::unique_ptr<IVirtualSceneManager> Guard(std::unique_ptr<IVirtualSceneManager> real) {
    return std::make_unique<CGuardedVirtualSceneManager>(std::move(real));
}

}  // namespace lumets

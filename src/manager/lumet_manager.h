// CLumetManager: the registry of SWF subtitles by id.
#pragma once

#include "lumets/lumet_manager.h"
#include "lumets_platform/lock.h"

namespace lumets {

// Placeholder until the play queue and the subtitle items exist: every
// operation takes the lock and does nothing; the queries report false and
// write nothing (GetSubtitlePosition still clears its output).
class CLumetManager final : public ILumetManager {
  public:
    CLumetManager() = default;
    ~CLumetManager() override;

    void AddSubtitle(const char16_t* id, const char16_t* group, const ItemDescription* items,
                     uint32_t count, int32_t x, int32_t y, bool loop, int32_t intervalMs) override;
    void RemoveSubtitle(const char16_t* id) override;
    void RemoveAllSubtitles() override;
    void TrimGroup(const char16_t* group, uint32_t keep) override;
    bool GetPlayingInGroup(const char16_t* group, SubtitleRectEntry* entries,
                           uint32_t* count) override;
    bool HitTestGroup(const char16_t* group, int32_t x, int32_t y, char16_t* id,
                      RECT* rect) override;
    bool GetSubtitleRect(const char16_t* id, RECT* rect) override;
    bool GetSubtitlePosition(const char16_t* id, POINT* position) override;
    void MoveSubtitle(const char16_t* id, int32_t x, int32_t y) override;
    void UpdateSubtitleText(const char16_t* id, const TextPart* text) override;
    void UpdateSubtitleBackground(const char16_t* id, const BackgroundPart* background) override;
    void DrawToBuffer(uint8_t* frame, uint32_t width, uint32_t height, float scale) override;
    void DrawToTarget(int32_t width, int32_t height, float scale) override;
    void ReleaseGpuResources() override;

  private:
    CLock m_lock;
};

}  // namespace lumets

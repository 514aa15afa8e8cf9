// ILumetManager: SWF subtitles registered under string ids, each playing a
// queue of items, composited into the host's frame or GL target.
#pragma once

#include <cstdint>

#include "lumets/export.h"
#include "lumets/frame.h"
#include "lumets/records.h"
#include "lumets/win_types.h"

// The order of the operations is the virtual-table layout the host calls
// through; never reorder, insert or remove one.
class LUMETS_API ILumetManager {
  public:
    virtual void AddSubtitle(const char16_t* id, const char16_t* group,
                             const ItemDescription* items, uint32_t count, int32_t x, int32_t y,
                             bool loop, int32_t intervalMs) = 0;
    virtual void RemoveSubtitle(const char16_t* id) = 0;
    virtual void RemoveAllSubtitles() = 0;
    virtual void TrimGroup(const char16_t* group, uint32_t keep) = 0;
    // entries must have room for every playing member of the group.
    virtual bool GetPlayingInGroup(const char16_t* group, SubtitleRectEntry* entries,
                                   uint32_t* count) = 0;
    // id, when not null, is a buffer of 260 units.
    virtual bool HitTestGroup(const char16_t* group, int32_t x, int32_t y, char16_t* id,
                              RECT* rect) = 0;
    virtual bool GetSubtitleRect(const char16_t* id, RECT* rect) = 0;
    virtual bool GetSubtitlePosition(const char16_t* id, POINT* position) = 0;
    virtual void MoveSubtitle(const char16_t* id, int32_t x, int32_t y) = 0;
    virtual void UpdateSubtitleText(const char16_t* id, const TextPart* text) = 0;
    virtual void UpdateSubtitleBackground(const char16_t* id, const BackgroundPart* background) = 0;
    // frame: 24-bit B, G, R, rows bottom-up and padded to 4 bytes.
    virtual void DrawToBuffer(uint8_t* frame, uint32_t width, uint32_t height, float scale) = 0;
    // Draws into the framebuffer current on the calling (GL) thread.
    virtual void DrawToTarget(int32_t width, int32_t height, float scale) = 0;
    virtual void ReleaseGpuResources() = 0;
    virtual ~ILumetManager();
    // After the host's layout: DrawToBuffer into a frame of any layout
    // lumets/frame.h describes. A frame that cannot be drawn into is left alone.
    virtual void DrawToFrame(const lumets_frame* frame, float scale) = 0;

  protected:
    ILumetManager();

  public:
    ILumetManager(const ILumetManager&);
    ILumetManager& operator=(const ILumetManager&);
};

LUMETS_API ILumetManager* CreateLumetManager();
// A null pointer is ignored.
LUMETS_API void DeleteLumetManager(ILumetManager* manager);

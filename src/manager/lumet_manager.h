// CLumetManager: the registry of SWF subtitles by id. Each id owns one play
// queue (CLumetObjsPlayer); the manager answers the host's geometry, passes
// on updates, and composites every subtitle, oldest first, into the host's
// frame in memory or on the GPU.
//
// m_lock serialises every operation but ReleaseGpuResources, and is held
// across calls into the queues and items, the joins of item threads
// included; item threads never take it. The GPU state (combiner and texture
// slots) belongs to the host's GL thread alone.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "lumets/lumet_manager.h"
#include "lumets_platform/lock.h"
#include "manager/lumet_objs_player.h"

namespace lumets {

// Deletes the textures, at most kDeleteBatch names to a glDeleteTextures
// call. Needs the GL context current.
inline constexpr size_t kDeleteBatch = 2048;
void DeleteTexturesInBatches(const std::vector<GLuint>& names);

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
    void DrawToFrame(const lumets_frame* frame, float scale) override;
    void DrawToTarget(int32_t width, int32_t height, float scale) override;
    void ReleaseGpuResources() override;

  private:
    struct Entry {
        int64_t startTime;
        const std::u16string* id;  // the registry's key
        CLumetObjsPlayer* player;
    };
    // The registered subtitles ordered by start time, oldest first; with a
    // group, only its members (and with playing, only those that play). The
    // list is kept for the next call, so drawing allocates nothing; it is
    // valid until the registry changes.
    const std::vector<Entry>& ByStartTime(const char16_t* group, bool playing);
    CLumetObjsPlayer* Find(const char16_t* id);
    // Deletes the textures of the slots and destroys their buffer objects.
    static void Release(const std::vector<TextureSlot>& slots, std::vector<GLuint>* names);
    // One log record when the slots' textures have gone with a lost context.
    void NoteLostContext();

    CLock m_lock;
    std::map<std::u16string, std::unique_ptr<CLumetObjsPlayer>> m_players;
    std::vector<Entry> m_order;
    IGPUCombiner* m_combiner = nullptr;
    std::map<std::u16string, std::vector<TextureSlot>> m_textureSlots;
    // Kept from frame to frame: the ids whose subtitle has gone, and the
    // texture names to delete.
    std::vector<std::u16string> m_stale;
    std::vector<GLuint> m_names;
    bool m_lostContextNoted = false;
};

}  // namespace lumets

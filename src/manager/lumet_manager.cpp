#include "manager/lumet_manager.h"
#include "lumets_common/pixel_ops.h"

#include <epoxy/gl.h>

#include <algorithm>
#include <iterator>
#include <set>

#include "log/logger.h"
#include "lumets/host/flash_player.h"
#include "lumets_common/gl_owners.h"
#include "lumets_platform/utf16.h"

namespace lumets {

namespace {

constexpr size_t kIdUnits = 260;

void CopyId(char16_t* dst, const std::u16string& id) {
    platform::U16CopyTruncate(dst, kIdUnits, id.c_str(), id.size() + 1);
}

}  // namespace

CLumetManager::~CLumetManager() {
    RemoveAllSubtitles();
}

CLumetObjsPlayer* CLumetManager::Find(const char16_t* id) {
    if (id == nullptr) {
        return nullptr;
    }
    auto found = m_players.find(std::u16string(id));
    return found != m_players.end() ? found->second.get() : nullptr;
}

const std::vector<CLumetManager::Entry>& CLumetManager::ByStartTime(const char16_t* group,
                                                                    bool playing) {
    m_order.clear();
    for (const auto& [id, player] : m_players) {
        if ((group != nullptr && !player->IsInGroup(group)) ||
            (playing && player->GetState() != LumetState::Playing)) {
            continue;
        }
        m_order.push_back(Entry{player->GetStartTime(), &id, player.get()});
    }
    std::sort(m_order.begin(), m_order.end(),
              [](const Entry& a, const Entry& b) { return a.startTime < b.startTime; });
    return m_order;
}

void CLumetManager::AddSubtitle(const char16_t* id, const char16_t* group,
                                const ItemDescription* items, uint32_t count, int32_t x, int32_t y,
                                bool loop, int32_t intervalMs) {
    // A null group has no name to copy: nothing is added.
    if (id == nullptr || group == nullptr) {
        return;
    }
    // Movies are opened and their first frames decoded here, before the lock
    // that drawing takes; the players made under it start from them.
    if (items != nullptr) {
        std::set<std::u16string> movies;
        for (uint32_t i = 0; i < count; ++i) {
            if (const SwfPart* swf = items[i].pSwf) {
                movies.emplace(swf->szPath,
                               platform::U16Length(swf->szPath, std::size(swf->szPath)));
            }
        }
        for (const std::u16string& path : movies) {
            host::PrepareMovie(path.c_str());
        }
    }
    CAutoLock lock(&m_lock);
    std::u16string key(id);
    auto found = m_players.find(key);
    if (found == m_players.end()) {
        // Made before it enters the registry: a failed allocation leaves no
        // empty entry behind.
        auto player = std::make_unique<CLumetObjsPlayer>();
        found = m_players.emplace(std::move(key), std::move(player)).first;
    }
    found->second->Setup(group, items, count, x, y, loop, intervalMs);
}

void CLumetManager::RemoveSubtitle(const char16_t* id) {
    if (id == nullptr || id[0] == u'\0') {
        return;
    }
    CAutoLock lock(&m_lock);
    auto found = m_players.find(std::u16string(id));
    if (found != m_players.end()) {
        found->second->Stop();
        m_players.erase(found);
    }
}

void CLumetManager::RemoveAllSubtitles() {
    CAutoLock lock(&m_lock);
    // Every queue is asked to stop before any is waited for, so removing many
    // costs about one frame, not one per subtitle.
    for (const auto& [id, player] : m_players) {
        player->RequestStop();
    }
    m_players.clear();
}

void CLumetManager::TrimGroup(const char16_t* group, uint32_t keep) {
    if (group == nullptr) {
        return;
    }
    CAutoLock lock(&m_lock);
    // The ids are copied: removing changes the registry the order points into.
    std::vector<std::u16string> oldest;
    const std::vector<Entry>& members = ByStartTime(group, false);
    for (size_t i = 0; i + keep < members.size(); ++i) {
        oldest.push_back(*members[i].id);
        members[i].player->RequestStop();  // all asked before any is waited for
    }
    for (const std::u16string& id : oldest) {
        RemoveSubtitle(id.c_str());
    }
}

bool CLumetManager::GetPlayingInGroup(const char16_t* group, SubtitleRectEntry* entries,
                                      uint32_t* count) {
    if (group == nullptr) {
        return false;
    }
    CAutoLock lock(&m_lock);
    const std::vector<Entry>& playing = ByStartTime(group, true);
    if (playing.empty() || entries == nullptr || count == nullptr) {
        return false;
    }
    for (size_t i = 0; i < playing.size(); ++i) {
        CopyId(entries[i].id, *playing[i].id);
        playing[i].player->GetRect(&entries[i].rect, 1.0f);
    }
    *count = static_cast<uint32_t>(playing.size());
    return true;
}

bool CLumetManager::HitTestGroup(const char16_t* group, int32_t x, int32_t y, char16_t* id,
                                 RECT* rect) {
    if (group == nullptr) {
        return false;
    }
    CAutoLock lock(&m_lock);
    const Entry* newest = nullptr;
    for (const Entry& entry : ByStartTime(group, true)) {
        if (entry.player->HitTest(x, y, 1.0f)) {
            newest = &entry;  // a later one started later
        }
    }
    if (newest == nullptr) {
        return false;
    }
    if (id != nullptr) {
        CopyId(id, *newest->id);
    }
    if (rect != nullptr) {
        newest->player->GetRect(rect, 1.0f);
    }
    return true;
}

bool CLumetManager::GetSubtitleRect(const char16_t* id, RECT* rect) {
    CAutoLock lock(&m_lock);
    CLumetObjsPlayer* player = Find(id);
    if (player == nullptr) {
        return false;
    }
    player->GetRect(rect, 1.0f);
    return true;
}

bool CLumetManager::GetSubtitlePosition(const char16_t* id, POINT* position) {
    if (position != nullptr) {
        *position = POINT{0, 0};
    }
    CAutoLock lock(&m_lock);
    CLumetObjsPlayer* player = Find(id);
    if (player == nullptr) {
        return false;
    }
    player->GetPosition(position);
    return true;
}

void CLumetManager::MoveSubtitle(const char16_t* id, int32_t x, int32_t y) {
    CAutoLock lock(&m_lock);
    if (CLumetObjsPlayer* player = Find(id)) {
        player->MoveTo(x, y);
    }
}

void CLumetManager::UpdateSubtitleText(const char16_t* id, const TextPart* text) {
    CAutoLock lock(&m_lock);
    if (CLumetObjsPlayer* player = Find(id)) {
        player->UpdateText(text);
    }
}

void CLumetManager::UpdateSubtitleBackground(const char16_t* id, const BackgroundPart* background) {
    CAutoLock lock(&m_lock);
    if (CLumetObjsPlayer* player = Find(id)) {
        player->UpdateBackground(background);
    }
}

void CLumetManager::DrawToBuffer(uint8_t* frame, uint32_t width, uint32_t height, float scale) {
    const lumets_frame packed = PackedFrame24(frame, width, height);
    DrawToFrame(&packed, scale);
}

void CLumetManager::DrawToFrame(const lumets_frame* frame, float scale) {
    if (FrameView(frame).data == nullptr) {
        return;
    }
    CAutoLock lock(&m_lock);
    for (const Entry& entry : ByStartTime(nullptr, false)) {
        entry.player->DrawToFrame(*frame, scale);
    }
}

void CLumetManager::Release(const std::vector<TextureSlot>& slots, std::vector<GLuint>* names) {
    for (const TextureSlot& slot : slots) {
        names->push_back(slot.texture);
        if (slot.pbo != nullptr) {
            CGLObjectFactory::DestroyPBO(slot.pbo);
        }
    }
}

void DeleteTexturesInBatches(const std::vector<GLuint>& names) {
    for (size_t first = 0; first < names.size(); first += kDeleteBatch) {
        const size_t n = std::min(kDeleteBatch, names.size() - first);
        gl::DeleteTextures(names.data() + first, static_cast<GLsizei>(n));
    }
}

void CLumetManager::DrawToTarget(int32_t width, int32_t height, float scale) {
    if (m_combiner == nullptr) {
        m_combiner = CProcessorFactory::CreateCombiner();
        if (m_combiner != nullptr) {
            m_combiner->Init();
        }
    }
    NoteLostContext();
    m_stale.clear();
    {
        CAutoLock lock(&m_lock);
        // Every registered subtitle draws, into its own slots (made on its
        // first draw); the ids with slots that are no longer registered are
        // the stale ones. Both maps run in key order.
        for (const Entry& entry : ByStartTime(nullptr, false)) {
            entry.player->DrawToTarget(width, height, m_combiner, &m_textureSlots[*entry.id],
                                       scale);
        }
        auto player = m_players.begin();
        for (const auto& [id, slots] : m_textureSlots) {
            while (player != m_players.end() && player->first < id) {
                ++player;
            }
            if (player == m_players.end() || player->first != id) {
                m_stale.push_back(id);
            }
        }
    }
    m_names.clear();
    for (const std::u16string& id : m_stale) {
        auto found = m_textureSlots.find(id);
        if (found != m_textureSlots.end()) {
            Release(found->second, &m_names);
            m_textureSlots.erase(found);
        }
    }
    DeleteTexturesInBatches(m_names);
}

// A host that destroys its GL context without ReleaseGpuResources leaves the
// slots holding names that are no longer textures, and nothing draws until it
// calls it. That is the host's to do, but it hears of it once.
void CLumetManager::NoteLostContext() {
    if (m_lostContextNoted) {
        return;
    }
    for (const auto& [id, slots] : m_textureSlots) {
        if (!slots.empty() && slots.front().texture != 0) {
            if (glIsTexture(slots.front().texture) == GL_FALSE) {
                m_lostContextNoted = true;
                Logger::Write(LogError, "clumetmanager", __LINE__, "CLumetManager::DrawToTarget",
                              "Texture %u is no longer a texture: the GL context was lost; call "
                              "ReleaseGpuResources before drawing on a new one",
                              slots.front().texture);
            }
            return;
        }
    }
}

// Deliberately without the lock: the host calls it on its GL thread, which
// alone touches the GPU state, while other threads may hold the lock.
void CLumetManager::ReleaseGpuResources() {
    if (m_combiner != nullptr) {
        CProcessorFactory::DestroyCombiner(m_combiner);
        m_combiner = nullptr;
    }
    m_names.clear();
    for (const auto& [id, slots] : m_textureSlots) {
        Release(slots, &m_names);
    }
    if (m_names.empty()) {
        gl::DeleteTextures(m_names.data(),
                           0);  // also with nothing to delete, as a GL trace expects
    }
    DeleteTexturesInBatches(m_names);
    m_textureSlots.clear();
    m_lostContextNoted = false;
}

}  // namespace lumets

#include "manager/lumet_manager.h"

namespace lumets {

CLumetManager::~CLumetManager() {
    RemoveAllSubtitles();
}

void CLumetManager::AddSubtitle(const char16_t*, const char16_t*, const ItemDescription*, uint32_t,
                                int32_t, int32_t, bool, int32_t) {
    CAutoLock lock(&m_lock);
}

void CLumetManager::RemoveSubtitle(const char16_t*) {
    CAutoLock lock(&m_lock);
}

void CLumetManager::RemoveAllSubtitles() {
    CAutoLock lock(&m_lock);
}

void CLumetManager::TrimGroup(const char16_t*, uint32_t) {
    CAutoLock lock(&m_lock);
}

bool CLumetManager::GetPlayingInGroup(const char16_t*, SubtitleRectEntry*, uint32_t*) {
    CAutoLock lock(&m_lock);
    return false;
}

bool CLumetManager::HitTestGroup(const char16_t*, int32_t, int32_t, char16_t*, RECT*) {
    CAutoLock lock(&m_lock);
    return false;
}

bool CLumetManager::GetSubtitleRect(const char16_t*, RECT*) {
    CAutoLock lock(&m_lock);
    return false;
}

bool CLumetManager::GetSubtitlePosition(const char16_t*, POINT* position) {
    if (position != nullptr) {
        *position = POINT{0, 0};
    }
    CAutoLock lock(&m_lock);
    return false;
}

void CLumetManager::MoveSubtitle(const char16_t*, int32_t, int32_t) {
    CAutoLock lock(&m_lock);
}

void CLumetManager::UpdateSubtitleText(const char16_t*, const TextPart*) {
    CAutoLock lock(&m_lock);
}

void CLumetManager::UpdateSubtitleBackground(const char16_t*, const BackgroundPart*) {
    CAutoLock lock(&m_lock);
}

void CLumetManager::DrawToBuffer(uint8_t*, uint32_t, uint32_t, float) {
    CAutoLock lock(&m_lock);
}

void CLumetManager::DrawToTarget(int32_t, int32_t, float) {
    CAutoLock lock(&m_lock);
}

// Deliberately without the lock: the host calls it on its GL thread while
// other threads may hold the lock.
void CLumetManager::ReleaseGpuResources() {}

}  // namespace lumets

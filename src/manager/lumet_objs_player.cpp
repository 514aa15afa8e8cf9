#include "manager/lumet_objs_player.h"

#include <algorithm>
#include <iterator>

#include "log/logger.h"
#include "lumets/time_source.h"
#include "lumets_platform/utf16.h"

namespace lumets {

namespace {

constexpr int32_t kPauseStepMs = 100;

template <typename Part>
std::unique_ptr<Part> CopyOf(const Part* part) {
    return part != nullptr ? std::make_unique<Part>(*part) : nullptr;
}

// Saturating, as positions elsewhere: a hostile drag pins at the edge.
int32_t Add(int64_t a, int64_t b, int64_t c) {
    return SaturateToInt32(a + b - c);
}

}  // namespace

ItemDescription OwnedDescription::View() const {
    ItemDescription view{};
    view.pSwf = swf.get();
    view.pText = text.get();
    view.pBackground = background.get();
    view.nPlayCount = playCount;
    return view;
}

CLumetObjsPlayer::~CLumetObjsPlayer() {
    Stop();
}

void CLumetObjsPlayer::SetItems(const ItemDescription* items, uint32_t count) {
    CAutoLock lock(&m_lock);
    m_descs.clear();
    if (items == nullptr) {
        return;
    }
    m_descs.reserve(count);
    for (uint32_t i = 0; i < count; ++i) {
        OwnedDescription copy;
        copy.swf = CopyOf(items[i].pSwf);
        copy.text = CopyOf(items[i].pText);
        copy.background = CopyOf(items[i].pBackground);
        copy.playCount = items[i].nPlayCount;
        m_descs.push_back(std::move(copy));
    }
}

void CLumetObjsPlayer::Setup(const char16_t* group, const ItemDescription* items, uint32_t count,
                             int32_t x, int32_t y, bool loop, int32_t intervalMs) {
    if (GetState() != LumetState::Idle || m_cycling.load()) {
        return;  // busy, or pausing before position 0 comes round again
    }
    m_position = POINT{x, y};
    m_dragAnchor = m_position;
    // The drag origin follows too, so that a move before any GetRect keeps
    // the subtitle where Setup put it.
    m_dragOrigin = m_position;
    m_intervalMs.store(intervalMs);
    m_loop.store(loop);
    platform::U16CopyTruncate(m_group, kGroupUnits, group, kGroupUnits);
    SetItems(items, count);
    if (RestartEnded()) {
        PlayAt(0);
        m_currentIndex.store(0);
    }
}

bool CLumetObjsPlayer::RestartEnded() {
    std::vector<std::unique_ptr<CLumet>> failed;
    {
        CAutoLock lock(&m_lock);
        const size_t n = std::min(m_items.size(), m_descs.size());
        for (size_t j = 0; j < n; ++j) {
            // Items whose threads have ended start again; running ones (left
            // waiting by a cycle that ended early) stay as they are.
            const ItemDescription desc = m_descs[j].View();
            if (m_items[j]->GetState() == LumetState::Idle &&
                !m_items[j]->Start(&desc, false, m_loop.load())) {
                // As a failed creation: the item goes, the queue is idle and
                // a later Setup tries again.
                m_current.store(nullptr);
                failed.assign(std::make_move_iterator(m_items.begin() + static_cast<ptrdiff_t>(j)),
                              std::make_move_iterator(m_items.end()));
                m_items.resize(j);
                break;
            }
        }
    }
    return failed.empty();  // the failed items are destroyed outside the lock
}

void CLumetObjsPlayer::Pause(int32_t intervalMs) {
    if (intervalMs > 0 && intervalMs <= kPauseStepMs) {
        m_wake.WaitFor(static_cast<uint32_t>(intervalMs));
        return;
    }
    // Longer pauses go in steps, as a host would see them: the pause is the
    // interval rounded up to a whole step.
    for (int64_t slept = 0; slept < intervalMs && !m_stopping.load(); slept += kPauseStepMs) {
        if (m_wake.WaitFor(kPauseStepMs)) {
            return;
        }
    }
}

void CLumetObjsPlayer::PlayAt(uint32_t index) {
    int32_t pauseMs = 0;
    {
        CAutoLock lock(&m_lock);
        const size_t n = m_descs.size();
        if (n == 0) {
            return;
        }
        if (index >= n) {
            if (!m_loop.load()) {
                return;  // the queue has ended; the last item stays current
            }
            index = static_cast<uint32_t>(index % n);
        }
        m_currentIndex.store(index);
        if (index == 0 && !m_items.empty() && !m_stopping.load()) {
            // A repeat cycle. A round that took no time at all (every turn
            // without a step, no interval) waits one frame, or it would hand
            // the turn round for ever.
            m_cycling.store(true);
            m_current.store(nullptr);
            pauseMs = m_intervalMs.load();
            if (pauseMs <= 0 && MonotonicMs() == m_roundStartMs) {
                pauseMs = static_cast<int32_t>(kFrameMs);  // one frame step
            }
        }
    }
    if (pauseMs > 0) {
        Pause(pauseMs);  // without the lock: a stop must get in
    }
    CAutoLock lock(&m_lock);
    if (index == 0) {
        m_roundStartMs = MonotonicMs();
        // A stop during the pause starts nothing.
        for (size_t j = m_items.size(); j < m_descs.size() && !m_stopping.load(); ++j) {
            const ItemDescription desc = m_descs[j].View();
            auto item = std::make_unique<CLumet>();
            item->SetOwner(this);
            if (!item->Start(&desc, false, m_loop.load())) {
                m_cycling.store(false);
                return;  // the cycle ends; no item gets its turn
            }
            m_items.push_back(std::move(item));
        }
    }
    if (!m_stopping.load() && index < m_items.size()) {
        CLumet* current = m_items[index].get();
        m_current.store(current);
        current->SignalPlay();
    }
    m_cycling.store(false);
}

void CLumetObjsPlayer::OnPlayedOnce() {
    const uint32_t next = m_currentIndex.load() + 1;
    Logger::Write(LogTrace, "clumetobjsplayer", __LINE__, "CLumetObjsPlayer::OnPlayedOnce",
                  "Lumet Played one time, next=%d", static_cast<int>(next));
    m_currentIndex.store(next);
    PlayAt(next);
}

void CLumetObjsPlayer::RequestStop() {
    CAutoLock lock(&m_lock);
    // Under the lock: a PlayAt either finished its changes or sees the flag.
    m_stopping.store(true);
    m_currentIndex.store(static_cast<uint32_t>(m_descs.size()));
    m_loop.store(false);
    m_wake.Set();
    for (std::unique_ptr<CLumet>& item : m_items) {
        item->RequestStop();
    }
}

void CLumetObjsPlayer::Stop() {
    RequestStop();
    // Every thread is joined before any item goes: a thread still ending its
    // turn may give the next item its turn. The joins run without the lock,
    // which a pause that a stop just ended takes again on its way out; once
    // stopping, nothing adds to the items, so reading them here is safe.
    for (std::unique_ptr<CLumet>& item : m_items) {
        item->Stop();
    }
    std::vector<std::unique_ptr<CLumet>> ended;
    {
        CAutoLock lock(&m_lock);
        ended.swap(m_items);
        m_current.store(nullptr);
        m_stopping.store(false);
        m_wake.Reset();
    }
}

bool CLumetObjsPlayer::IsInGroup(const char16_t* group) const {
    return group != nullptr && platform::U16CompareNoCase(group, m_group) == 0;
}

LumetState CLumetObjsPlayer::GetState() {
    CLumet* current = m_current.load();
    return current != nullptr ? current->GetState() : LumetState::Idle;
}

int64_t CLumetObjsPlayer::GetStartTime() {
    CLumet* current = m_current.load();
    return current != nullptr ? current->GetStartTime() : 0;
}

void CLumetObjsPlayer::DrawToFrame(const lumets_frame& frame, float scale) {
    if (CLumet* current = m_current.load()) {
        current->CompositeToFrame(frame, m_position.x, m_position.y, scale);
    }
}

void CLumetObjsPlayer::DrawToTarget(int32_t width, int32_t height, IGPUCombiner* combiner,
                                    std::vector<TextureSlot>* slots, float scale) {
    if (CLumet* current = m_current.load()) {
        current->RenderToTextures(width, height, combiner, slots, m_position.x, m_position.y,
                                  scale);
    }
}

bool CLumetObjsPlayer::HitTest(int32_t x, int32_t y, float scale) {
    CLumet* current = m_current.load();
    return current != nullptr &&
           current->HitTest(Add(x, 0, m_position.x), Add(y, 0, m_position.y), scale);
}

bool CLumetObjsPlayer::GetRect(RECT* rect, float scale) {
    CLumet* current = m_current.load();
    if (current == nullptr || rect == nullptr) {
        return false;
    }
    RECT bounds{};
    const bool ok = current->GetBounds(&bounds, scale);
    *rect = RECT{Add(bounds.left, m_position.x, 0), Add(bounds.top, m_position.y, 0),
                 Add(bounds.right, m_position.x, 0), Add(bounds.bottom, m_position.y, 0)};
    m_dragAnchor = POINT{rect->left, rect->top};
    m_dragOrigin = m_position;
    return ok;
}

bool CLumetObjsPlayer::GetPosition(POINT* position) const {
    if (position == nullptr) {
        return false;
    }
    *position = m_position;
    return true;
}

void CLumetObjsPlayer::MoveTo(int32_t x, int32_t y) {
    if (m_current.load() == nullptr) {
        return;
    }
    m_position =
        POINT{Add(m_dragOrigin.x, x, m_dragAnchor.x), Add(m_dragOrigin.y, y, m_dragAnchor.y)};
}

// The part goes to the first position that has one of its kind: into the
// description (for later turns) and to that position's item, if made.
template <typename Part>
void CLumetObjsPlayer::UpdateFirst(std::unique_ptr<Part> OwnedDescription::*member,
                                   const Part* part, void (CLumet::*apply)(const Part*)) {
    if (part == nullptr) {
        return;
    }
    CAutoLock lock(&m_lock);
    for (size_t i = 0; i < m_descs.size(); ++i) {
        if (m_descs[i].*member) {
            *(m_descs[i].*member) = *part;
            if (i < m_items.size()) {
                (m_items[i].get()->*apply)(part);
            }
            return;
        }
    }
}

void CLumetObjsPlayer::UpdateText(const TextPart* part) {
    UpdateFirst(&OwnedDescription::text, part, &CLumet::UpdateText);
}

void CLumetObjsPlayer::UpdateBackground(const BackgroundPart* part) {
    UpdateFirst(&OwnedDescription::background, part, &CLumet::UpdateBackground);
}

}  // namespace lumets

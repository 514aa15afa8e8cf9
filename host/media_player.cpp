#include "media_player.h"

#include <algorithm>
#include <mutex>

#include "image/scaled_composite.h"
#include "lumets/time_source.h"
#include "lumets_platform/event.h"
#include "lumets_platform/utf16.h"

namespace lumets::host {

namespace {

// Host paths are at most a few hundred units; this only bounds the read.
constexpr size_t kMaxPathUnits = 32768;

int64_t NowMs() {
    return static_cast<int64_t>(MonotonicMs());
}

}  // namespace

struct CMediaPlayer::Shared {
    std::mutex mutex;
    // Everything below is guarded by mutex.
    CFlashPlayerEventHandler* handler = nullptr;
    std::shared_ptr<const CMovie> movie;
    bool loading = false;
    bool playing = false;
    bool quit = false;
    size_t frameIndex = 0;
    // While playing: the time-source instant at which the current pass began.
    // Signed: a position taken in one time mode may exceed the clock of another.
    int64_t passStartMs = 0;
    // While not playing: how far into the pass playing stopped.
    int64_t positionMs = 0;

    // Wakes the playing thread when the state changes under it.
    platform::AutoResetEvent wake;

    // Moves the frame index up to now; returns the passes completed and sets
    // *waitMs to the time until the next frame is due (kWaitInfinite when
    // nothing plays). Called with mutex held.
    uint32_t Advance(uint32_t* waitMs) {
        *waitMs = platform::kWaitInfinite;
        if (!playing || !movie) {
            return 0;
        }
        const auto durationMs = static_cast<int64_t>(movie->DurationMs());
        const int64_t nowMs = NowMs();
        uint32_t passes = 0;
        for (;;) {
            const int64_t dueMs = passStartMs + static_cast<int64_t>(movie->frameEndMs[frameIndex]);
            if (nowMs < dueMs) {
                const int64_t leftMs = dueMs - nowMs;
                *waitMs = leftMs < int64_t{platform::kWaitInfinite} ? static_cast<uint32_t>(leftMs)
                                                                    : platform::kWaitInfinite - 1;
                break;
            }
            if (++frameIndex == movie->frames.size()) {
                frameIndex = 0;
                passStartMs += durationMs;
                ++passes;
                // A thread held up for several passes (a suspended process)
                // reports one end and picks up at the present position.
                if (nowMs - passStartMs >= durationMs) {
                    passStartMs = nowMs - (nowMs - passStartMs) % durationMs;
                }
            }
        }
        return passes;
    }

    // The playing thread's body.
    static void Run(const std::shared_ptr<Shared>& self) {
        for (;;) {
            uint32_t waitMs = platform::kWaitInfinite;
            uint32_t passes = 0;
            CFlashPlayerEventHandler* handler = nullptr;
            {
                std::lock_guard<std::mutex> lock(self->mutex);
                if (self->quit) {
                    return;
                }
                passes = self->Advance(&waitMs);
                handler = self->handler;
            }
            if (passes > 0 && handler != nullptr) {
                // Never under our own lock: the handler pauses us and takes its
                // owner's locks, which other threads hold while they call us.
                for (uint32_t i = 0; i < passes; ++i) {
                    handler->OnPlayEnd(FILE_TYPE_MEDIA);
                }
                continue;  // the handler may have paused or stopped us
            }
            self->wake.WaitFor(waitMs);
        }
    }
};

CMediaPlayer::CMediaPlayer() : m_shared(std::make_shared<Shared>()) {}

// Always waits for the thread, also while it is inside the handler's
// OnPlayEnd: the handler (and what it reaches) must outlive every callback,
// and the owner destroys the handler right after the player. A handler never
// destroys the player that calls it, so the wait cannot be on itself.
CMediaPlayer::~CMediaPlayer() {
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->quit = true;
    }
    m_shared->wake.Set();
    m_thread.WaitForEnd(platform::kWaitInfinite);
}

void CMediaPlayer::SetEventHandler(CFlashPlayerEventHandler* handler) {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    m_shared->handler = handler;
}

void CMediaPlayer::Open(const char16_t* path, int32_t /*reserved*/, bool autoPlay) {
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->movie.reset();
        m_shared->loading = true;
        m_shared->playing = false;
        m_shared->frameIndex = 0;
        m_shared->positionMs = 0;
    }
    // Decoding takes a while: outside the lock, so queries answer "loading".
    std::shared_ptr<const CMovie> movie;
    if (path != nullptr) {
        movie = DecodeMovie(platform::U16ToUtf8(path, kMaxPathUnits));
    }
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->movie = movie;
        m_shared->loading = false;
    }
    if (movie) {
        StartThread();
        if (autoPlay) {
            Play();
        }
    }
}

void CMediaPlayer::StartThread() {
    if (m_thread.IsStarted()) {
        return;
    }
    std::shared_ptr<Shared> shared = m_shared;
    m_thread.Start([shared] { Shared::Run(shared); });
}

void CMediaPlayer::Play() {
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (m_shared->playing || !m_shared->movie) {
            return;
        }
        m_shared->playing = true;
        m_shared->passStartMs = NowMs() - m_shared->positionMs;
    }
    m_shared->wake.Set();
}

void CMediaPlayer::Pause() {
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        if (!m_shared->playing) {
            return;
        }
        m_shared->playing = false;
        m_shared->positionMs = std::max<int64_t>(0, NowMs() - m_shared->passStartMs);
    }
    m_shared->wake.Set();
}

void CMediaPlayer::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->playing = false;
        m_shared->frameIndex = 0;
        m_shared->positionMs = 0;
    }
    m_shared->wake.Set();
}

bool CMediaPlayer::IsReady() {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->movie != nullptr && !m_shared->loading;
}

bool CMediaPlayer::IsLoading() {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->loading;
}

bool CMediaPlayer::IsPlaying() {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->playing;
}

double CMediaPlayer::GetFrameRate() {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    const CMovie* movie = m_shared->movie.get();
    if (movie == nullptr || movie->DurationMs() == 0) {
        return 0.0;
    }
    return static_cast<double>(movie->frames.size()) * 1000.0 /
           static_cast<double>(movie->DurationMs());
}

bool CMediaPlayer::GetSize(uint32_t* width, uint32_t* height) {
    std::shared_ptr<const CMovie> movie;
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        movie = m_shared->movie;
    }
    const uint32_t w = movie ? static_cast<uint32_t>(movie->width) : 0;
    const uint32_t h = movie ? static_cast<uint32_t>(movie->height) : 0;
    if (width != nullptr) {
        *width = w;
    }
    if (height != nullptr) {
        *height = h;
    }
    return movie != nullptr;
}

std::shared_ptr<const CMovie> CMediaPlayer::CurrentFrame(size_t* frameIndex) {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    *frameIndex = m_shared->frameIndex;
    return m_shared->movie;
}

bool CMediaPlayer::RenderToTexture(GLuint texture, uint32_t* width, uint32_t* height, IPBO* pbo) {
    size_t index = 0;
    const std::shared_ptr<const CMovie> movie = CurrentFrame(&index);
    const uint32_t w = movie ? static_cast<uint32_t>(movie->width) : 0;
    const uint32_t h = movie ? static_cast<uint32_t>(movie->height) : 0;
    if (width != nullptr) {
        *width = w;
    }
    if (height != nullptr) {
        *height = h;
    }
    if (!movie || pbo == nullptr || texture == 0) {
        return false;
    }
    // Frames are kept bottom-up, the order in which OpenGL takes rows.
    const std::vector<uint8_t>& pixels = movie->frames[index];
    pbo->Resize(movie->width, movie->height);
    return pbo->Upload(texture, pixels.data(), static_cast<uint32_t>(pixels.size()), GL_BGRA);
}

void CMediaPlayer::RenderToFrame(uint8_t* frame, uint32_t width, uint32_t height, const RECT* clip,
                                 const POINT* pos, float scale) {
    if (frame == nullptr || width == 0 || height == 0) {
        return;
    }
    size_t index = 0;
    const std::shared_ptr<const CMovie> movie = CurrentFrame(&index);
    if (!movie) {
        return;
    }
    int32_t scaledWidth = 0;
    int32_t scaledHeight = 0;
    ScaledSize(movie->width, movie->height, scale, &scaledWidth, &scaledHeight);
    if (scaledWidth == 0) {
        return;
    }
    if (width > INT32_MAX || height > INT32_MAX) {
        return;
    }
    const PictureView target =
        PackedPicture(frame, static_cast<int32_t>(width), static_cast<int32_t>(height), 24);
    // The clip and position come in item units, as the text's and the plate's
    // do, and scale with the frame as theirs do.
    RECT area{0, 0, target.width, target.height};
    if (clip != nullptr) {
        area = RECT{ScaleCoordinate(clip->left, scale), ScaleCoordinate(clip->top, scale),
                    ScaleCoordinate(clip->right, scale), ScaleCoordinate(clip->bottom, scale)};
    }
    const POINT origin = pos != nullptr
                             ? POINT{ScaleCoordinate(pos->x, scale), ScaleCoordinate(pos->y, scale)}
                             : POINT{0, 0};
    m_scaledFrames.WithFrame(movie, index, scaledWidth, scaledHeight, [&](const uint8_t* pixels) {
        BlendIntoFrame24(target, area, origin,
                         PackedPicture(pixels, scaledWidth, scaledHeight, 32));
    });
}

}  // namespace lumets::host

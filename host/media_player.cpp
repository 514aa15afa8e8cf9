#include "media_player.h"

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <mutex>
#include <utility>
#include <vector>

#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"
#include "lumets_common/scaled_composite.h"
#include "lumets_platform/event.h"
#include "lumets_platform/utf16.h"

namespace lumets::host {

namespace {

// Frames decoded ahead of the one on show: a handful, fewer for large movies.
constexpr size_t kAheadBytes = size_t{24} << 20;
constexpr size_t kMostAhead = 4;
constexpr size_t kLeastAhead = 2;

int64_t NowMs() {
    return static_cast<int64_t>(MonotonicMs());
}

// The file as it is now, to tell a prepared movie from one replaced since.
struct FileKey {
    std::string path;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    int64_t modifiedNs = 0;
    bool operator==(const FileKey& other) const {
        return path == other.path && device == other.device && inode == other.inode &&
               size == other.size && modifiedNs == other.modifiedNs;
    }
};

bool KeyOf(const std::string& path, FileKey* key) {
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        return false;
    }
    *key = FileKey{path, info.st_dev, info.st_ino, info.st_size,
                   int64_t{info.st_mtim.tv_sec} * 1'000'000'000 + info.st_mtim.tv_nsec};
    return true;
}

// Movies opened ahead of their players (PrepareMovie), for a short while.
class CPreparedMovies {
  public:
    static CPreparedMovies& Instance() {
        static CPreparedMovies shelf;
        return shelf;
    }

    void Put(FileKey key, std::unique_ptr<CMovieSource> source, DecodedFrame first) {
        std::vector<Entry> expired;
        std::lock_guard<std::mutex> lock(m_mutex);
        Expire(&expired);
        if (m_entries.size() >= kMostKept) {
            expired.push_back(std::move(m_entries.front()));
            m_entries.erase(m_entries.begin());
        }
        m_entries.push_back(Entry{std::move(key), std::move(source), std::move(first),
                                  std::chrono::steady_clock::now()});
    }

    std::unique_ptr<CMovieSource> Take(const FileKey& key, DecodedFrame* first) {
        std::vector<Entry> expired;
        std::lock_guard<std::mutex> lock(m_mutex);
        Expire(&expired);
        for (auto entry = m_entries.begin(); entry != m_entries.end(); ++entry) {
            if (entry->key == key) {
                std::unique_ptr<CMovieSource> source = std::move(entry->source);
                *first = std::move(entry->first);
                m_entries.erase(entry);
                return source;
            }
        }
        return nullptr;
    }

  private:
    struct Entry {
        FileKey key;
        std::unique_ptr<CMovieSource> source;
        DecodedFrame first;
        std::chrono::steady_clock::time_point made;
    };
    static constexpr size_t kMostKept = 8;
    static constexpr std::chrono::seconds kKeptFor{5};

    // Moves out what no player took in time; it is destroyed by the caller,
    // after the lock.
    void Expire(std::vector<Entry>* expired) {
        const auto now = std::chrono::steady_clock::now();
        while (!m_entries.empty() && now - m_entries.front().made > kKeptFor) {
            expired->push_back(std::move(m_entries.front()));
            m_entries.erase(m_entries.begin());
        }
    }

    std::mutex m_mutex;
    std::vector<Entry> m_entries;
};

// Converts the frame to width x height now, so that drawing it at that size
// costs a blend only; nothing when the size is not known yet or libswscale
// refuses.
void ConvertAhead(DecodedFrame* frame, int32_t width, int32_t height, SwsContextPtr* scaler) {
    auto converted = std::make_shared<ConvertedFrame>();
    if (width > 0 && ConvertFrame(*frame->picture, width, height, scaler, converted.get())) {
        frame->converted = std::move(converted);
    }
}

}  // namespace

void PrepareMovie(const std::string& path) {
    FileKey key;
    DecodedFrame first;
    if (!KeyOf(path, &key)) {
        return;
    }
    std::unique_ptr<CMovieSource> source = OpenMovieSource(path, &first);
    if (source) {
        // Drawn at the movie's own size, the first frame is ready too.
        SwsContextPtr scaler;
        ConvertAhead(&first, source->Width(), source->Height(), &scaler);
        CPreparedMovies::Instance().Put(std::move(key), std::move(source), std::move(first));
    }
}

struct CMediaPlayer::Shared {
    std::mutex mutex;
    // Everything below is guarded by mutex.
    CFlashPlayerEventHandler* handler = nullptr;
    // The open movie; null without one, and while the playing thread has it
    // out to decode a frame.
    std::unique_ptr<CMovieSource> source;
    bool hasMovie = false;
    bool sourceEnded = false;  // it can decode no more: its frames so far play on
    int32_t width = 0;
    int32_t height = 0;
    double fps = 0;
    // Open counts movies and Stop positions: a frame decoded for an older one
    // is not shown.
    uint64_t movieCount = 0;
    uint64_t positionCount = 0;
    bool restart = false;  // the source goes back to its start before it decodes on
    std::shared_ptr<const DecodedFrame> first;
    // frames.front() is on show; the rest are decoded ahead, at most `ahead`.
    std::deque<std::shared_ptr<const DecodedFrame>> frames;
    size_t ahead = kLeastAhead;
    // The size the host drew at last, to which frames are converted ahead.
    int32_t drawWidth = 0;
    int32_t drawHeight = 0;
    SwsContextPtr aheadScaler;  // the playing thread's own, used outside the lock
    bool loading = false;
    bool playing = false;
    bool quit = false;
    // While playing: the time-source instant at which the current pass began.
    // Signed: a position taken in one time mode may exceed the clock of another.
    int64_t passStartMs = 0;
    // While not playing: how far into the pass playing stopped.
    int64_t positionMs = 0;

    // Wakes the playing thread when the state changes under it.
    platform::AutoResetEvent wake;

    // Moves the frame on show up to now, as far as decoded frames go; returns
    // the passes completed. Sets *waitMs to the time until the next frame is
    // due (kWaitInfinite when nothing plays) and *needFrame when a due frame
    // is still to be decoded. Called with mutex held.
    uint32_t Advance(uint32_t* waitMs, bool* needFrame) {
        *waitMs = platform::kWaitInfinite;
        *needFrame = false;
        if (!playing || frames.empty()) {
            return 0;
        }
        const int64_t nowMs = NowMs();
        uint32_t passes = 0;
        for (;;) {
            const DecodedFrame& shown = *frames.front();
            const auto endMs = static_cast<int64_t>(shown.endMs);
            const int64_t dueMs = passStartMs + endMs;
            if (nowMs < dueMs) {
                const int64_t leftMs = dueMs - nowMs;
                *waitMs = leftMs < int64_t{platform::kWaitInfinite} ? static_cast<uint32_t>(leftMs)
                                                                    : platform::kWaitInfinite - 1;
                break;
            }
            const bool next = frames.size() > 1;
            if (!next && !sourceEnded) {
                *needFrame = true;  // the thread decodes it, then comes back
                break;
            }
            if (!next && !shown.last) {
                break;  // a movie cut off mid-pass holds its last frame
            }
            if (shown.last) {
                passStartMs += endMs;
                ++passes;
                // A thread held up for several passes (a suspended process)
                // reports one end and picks up at the present position.
                if (nowMs - passStartMs >= endMs) {
                    passStartMs = nowMs - (nowMs - passStartMs) % endMs;
                }
            }
            if (next) {
                frames.pop_front();
            }
        }
        return passes;
    }

    // Decodes one frame with the source taken out of the shared state, then
    // keeps it if the movie and its position are still those it was for.
    static void DecodeOne(const std::shared_ptr<Shared>& self,
                          std::unique_ptr<lumets::host::CMovieSource> source, uint64_t movie,
                          uint64_t position, bool restart, int32_t drawWidth, int32_t drawHeight) {
        DecodedFrame frame;
        bool ok = true;
        if (restart) {
            // The first frame is on show already; decoding starts after it.
            ok = source->Restart() && source->Next(&frame);
        }
        ok = ok && source->Next(&frame);
        if (ok) {
            ConvertAhead(&frame, drawWidth, drawHeight, &self->aheadScaler);
        }
        std::unique_lock<std::mutex> lock(self->mutex);
        if (movie != self->movieCount) {
            lock.unlock();
            return;  // another movie was opened meanwhile: this one goes
        }
        self->source = std::move(source);
        if (position != self->positionCount) {
            return;  // stopped meanwhile: the source starts again next time
        }
        if (!ok) {
            self->sourceEnded = true;
            return;
        }
        self->frames.push_back(std::make_shared<const DecodedFrame>(std::move(frame)));
    }

    // The playing thread's body.
    static void Run(const std::shared_ptr<Shared>& self) {
        for (;;) {
            uint32_t waitMs = platform::kWaitInfinite;
            uint32_t passes = 0;
            bool needFrame = false;
            CFlashPlayerEventHandler* handler = nullptr;
            std::unique_ptr<CMovieSource> source;
            uint64_t movie = 0;
            uint64_t position = 0;
            bool restart = false;
            int32_t drawWidth = 0;
            int32_t drawHeight = 0;
            {
                std::lock_guard<std::mutex> lock(self->mutex);
                if (self->quit) {
                    return;
                }
                passes = self->Advance(&waitMs, &needFrame);
                handler = self->handler;
                const bool room = self->frames.size() < self->ahead + 1;
                if (passes == 0 && self->source && !self->sourceEnded && (needFrame || room)) {
                    source = std::move(self->source);
                    movie = self->movieCount;
                    position = self->positionCount;
                    restart = std::exchange(self->restart, false);
                    drawWidth = self->drawWidth;
                    drawHeight = self->drawHeight;
                }
            }
            if (passes > 0 && handler != nullptr) {
                // Never under our own lock: the handler pauses us and takes its
                // owner's locks, which other threads hold while they call us.
                for (uint32_t i = 0; i < passes; ++i) {
                    handler->OnPlayEnd(FILE_TYPE_MEDIA);
                }
                continue;  // the handler may have paused or stopped us
            }
            if (source) {
                DecodeOne(self, std::move(source), movie, position, restart, drawWidth, drawHeight);
                continue;
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
    std::unique_ptr<CMovieSource> old;
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        old = std::move(m_shared->source);
        ++m_shared->movieCount;
        m_shared->hasMovie = false;
        m_shared->first.reset();
        m_shared->frames.clear();
        m_shared->loading = true;
        m_shared->playing = false;
        m_shared->positionMs = 0;
    }
    old.reset();
    // Opening takes a while: outside the lock, so queries answer "loading".
    // A movie prepared ahead, outside its caller's locks, is taken instead.
    std::unique_ptr<CMovieSource> source;
    DecodedFrame first;
    if (path != nullptr) {
        const std::string file = platform::U16ToUtf8(path, kMaxPathUnits);
        FileKey key;
        if (KeyOf(file, &key)) {
            source = CPreparedMovies::Instance().Take(key, &first);
        }
        if (!source) {
            source = OpenMovieSource(file, &first);
        }
    }
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        m_shared->loading = false;
        if (source) {
            // A frame ahead holds its decoded picture (about 1.5 bytes a pixel
            // for the usual YUV) and its conversion (4 bytes a pixel at 1.0).
            const size_t frameBytes = static_cast<size_t>(source->Width()) *
                                      static_cast<size_t>(source->Height()) * 11 / 2;
            m_shared->ahead =
                std::clamp(kAheadBytes / std::max<size_t>(frameBytes, 1), kLeastAhead, kMostAhead);
            m_shared->width = source->Width();
            m_shared->height = source->Height();
            m_shared->fps = first.endMs > 0 ? 1000.0 / static_cast<double>(first.endMs) : 0.0;
            m_shared->first = std::make_shared<const DecodedFrame>(std::move(first));
            m_shared->frames.push_back(m_shared->first);
            m_shared->source = std::move(source);
            m_shared->sourceEnded = false;
            m_shared->restart = false;
            m_shared->hasMovie = true;
        }
    }
    if (IsReady()) {
        StartThread();
        m_shared->wake.Set();  // to decode ahead
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
        if (m_shared->playing || !m_shared->hasMovie) {
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
        m_shared->positionMs = 0;
        if (m_shared->hasMovie && m_shared->frames.front() != m_shared->first) {
            // Back to the first frame at once; the thread takes the source
            // back to its start before it decodes on.
            m_shared->frames.assign(1, m_shared->first);
            m_shared->restart = true;
            m_shared->sourceEnded = false;
            ++m_shared->positionCount;
        }
    }
    m_shared->wake.Set();
}

bool CMediaPlayer::IsReady() {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    return m_shared->hasMovie && !m_shared->loading;
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
    return m_shared->hasMovie ? m_shared->fps : 0.0;
}

void CMediaPlayer::GetSizeOfMovie(int32_t* width, int32_t* height) {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    *width = m_shared->hasMovie ? m_shared->width : 0;
    *height = m_shared->hasMovie ? m_shared->height : 0;
}

bool CMediaPlayer::GetSize(uint32_t* width, uint32_t* height) {
    uint32_t w = 0;
    uint32_t h = 0;
    bool has = false;
    {
        std::lock_guard<std::mutex> lock(m_shared->mutex);
        has = m_shared->hasMovie;
        w = has ? static_cast<uint32_t>(m_shared->width) : 0;
        h = has ? static_cast<uint32_t>(m_shared->height) : 0;
    }
    if (width != nullptr) {
        *width = w;
    }
    if (height != nullptr) {
        *height = h;
    }
    return has;
}

std::shared_ptr<const DecodedFrame> CMediaPlayer::CurrentFrame(int32_t drawWidth,
                                                               int32_t drawHeight) {
    std::lock_guard<std::mutex> lock(m_shared->mutex);
    if (m_shared->frames.empty()) {
        return nullptr;
    }
    // Frames decoded from now on are converted to the size drawn at last.
    if (drawWidth > 0) {
        m_shared->drawWidth = drawWidth;
        m_shared->drawHeight = drawHeight;
    }
    return m_shared->frames.front();
}

bool CMediaPlayer::RenderToTexture(GLuint texture, uint32_t* width, uint32_t* height, IPBO* pbo) {
    int32_t w = 0;
    int32_t h = 0;
    GetSizeOfMovie(&w, &h);
    const std::shared_ptr<const DecodedFrame> frame = CurrentFrame(w, h);
    if (width != nullptr) {
        *width = static_cast<uint32_t>(w);
    }
    if (height != nullptr) {
        *height = static_cast<uint32_t>(h);
    }
    if (!frame || pbo == nullptr || texture == 0) {
        return false;
    }
    // Bottom-up, the order in which OpenGL takes rows.
    bool uploaded = false;
    m_textureConversion.WithFrame(frame, w, h, [&](const uint8_t* pixels) {
        pbo->Resize(w, h);
        uploaded = pbo->Upload(texture, pixels,
                               static_cast<uint32_t>(w) * 4u * static_cast<uint32_t>(h), GL_BGRA);
    });
    return uploaded;
}

void CMediaPlayer::RenderToFrame(uint8_t* frame, uint32_t width, uint32_t height, const RECT* clip,
                                 const POINT* pos, float scale) {
    const lumets_frame packed = PackedFrame24(frame, width, height);
    RenderToHostFrame(&packed, clip, pos, scale);
}

void CMediaPlayer::RenderToHostFrame(const lumets_frame* frame, const RECT* clip, const POINT* pos,
                                     float scale) {
    const PictureView target = FrameView(frame);
    if (target.data == nullptr) {
        return;
    }
    int32_t movieWidth = 0;
    int32_t movieHeight = 0;
    GetSizeOfMovie(&movieWidth, &movieHeight);
    int32_t scaledWidth = 0;
    int32_t scaledHeight = 0;
    ScaledSize(movieWidth, movieHeight, scale, &scaledWidth, &scaledHeight);
    if (scaledWidth == 0) {
        return;
    }
    const std::shared_ptr<const DecodedFrame> shown = CurrentFrame(scaledWidth, scaledHeight);
    if (!shown) {
        return;
    }
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
    m_frameConversion.WithFrame(shown, scaledWidth, scaledHeight, [&](const uint8_t* pixels) {
        BlendIntoFrame(target, area, origin, PackedPicture(pixels, scaledWidth, scaledHeight, 32));
    });
}

}  // namespace lumets::host

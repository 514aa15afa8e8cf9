// CMediaPlayer: the IFlashPlayer of this platform. It plays short animations
// (APNG, GIF, animated WebP, WebM/VP9 with alpha, MP4) that it decodes whole
// when a movie is opened; a thread of its own advances the current frame at
// the movie's pace on the time source and reports the end of every pass.
#pragma once

#include <memory>

#include "frame_compositor.h"
#include "lumets/host/flash_player.h"
#include "lumets_platform/thread.h"

namespace lumets::host {

class CMediaPlayer final : public IFlashPlayer {
  public:
    CMediaPlayer();
    // Stops the playing thread. When the thread is inside the handler's
    // OnPlayEnd at that moment, it is let go rather than waited for (the
    // handler may be blocked on a lock that the destroying thread holds); it
    // calls nothing after that callback returns.
    ~CMediaPlayer() override;
    CMediaPlayer(const CMediaPlayer&) = delete;
    CMediaPlayer& operator=(const CMediaPlayer&) = delete;

    void SetEventHandler(CFlashPlayerEventHandler* handler) override;
    // Decodes the whole movie on the calling thread; loading meanwhile. A file
    // that cannot be played leaves the player without a movie.
    void Open(const char16_t* path, int32_t reserved, bool autoPlay) override;
    // Resumes where Pause left off, or starts from the first frame.
    void Play() override;
    void Pause() override;
    void Stop() override;
    bool IsReady() override;
    bool IsLoading() override;
    bool IsPlaying() override;
    double GetFrameRate() override;
    bool GetSize(uint32_t* width, uint32_t* height) override;
    bool RenderToTexture(GLuint texture, uint32_t* width, uint32_t* height, IPBO* pbo) override;
    void RenderToFrame(uint8_t* frame, uint32_t width, uint32_t height, const RECT* clip,
                       const POINT* pos, float scale) override;

    // What the playing thread shares with the player; it keeps it alive itself.
    struct Shared;

  private:
    // The movie and the index of the frame to show now (null without a movie).
    std::shared_ptr<const CMovie> CurrentFrame(size_t* frameIndex);
    void StartThread();

    std::shared_ptr<Shared> m_shared;
    platform::Thread m_thread;
    CScaledFrameCache m_scaledFrames;
};

}  // namespace lumets::host

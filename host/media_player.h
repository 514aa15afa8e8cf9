// CMediaPlayer: the IFlashPlayer of this platform. It plays animations and
// movies (APNG, GIF, animated WebP, WebM/VP8/VP9 with alpha, MP4) of any
// length: Open decodes the first frame, and a thread of its own decodes a few
// frames ahead, advances the current frame at the movie's pace on the time
// source, starts the movie again at its end and reports the end of every pass.
#pragma once

#include <memory>

#include "frame_compositor.h"
#include "lumets/host/flash_player.h"
#include "lumets_platform/thread.h"

namespace lumets::host {

class CMediaPlayer final : public IFlashPlayer {
  public:
    CMediaPlayer();
    // Stops the playing thread and waits for it, also while it is inside the
    // handler's OnPlayEnd: the handler outlives every callback to it.
    ~CMediaPlayer() override;
    CMediaPlayer(const CMediaPlayer&) = delete;
    CMediaPlayer& operator=(const CMediaPlayer&) = delete;

    void SetEventHandler(CFlashPlayerEventHandler* handler) override;
    // Opens the file and decodes its first frame on the calling thread (or
    // takes both from PrepareMovie); loading meanwhile. A file that cannot be
    // played leaves the player without a movie.
    void Open(const char16_t* path, int32_t reserved, bool autoPlay) override;
    // Resumes where Pause left off, or starts from the first frame.
    void Play() override;
    void Pause() override;
    void Stop() override;
    bool IsReady() override;
    bool IsLoading() override;
    bool IsPlaying() override;
    // The first frame's rate: 1000 over its duration in milliseconds.
    double GetFrameRate() override;
    bool GetSize(uint32_t* width, uint32_t* height) override;
    bool RenderToTexture(GLuint texture, uint32_t* width, uint32_t* height, IPBO* pbo) override;
    void RenderToHostFrame(const lumets_frame* frame, const RECT* clip, const POINT* pos,
                           float scale) override;
    void RenderToFrame(uint8_t* frame, uint32_t width, uint32_t height, const RECT* clip,
                       const POINT* pos, float scale) override;

    // What the playing thread shares with the player; it keeps it alive itself.
    struct Shared;

  private:
    // The frame to show now (null without a movie), to be drawn at
    // drawWidth x drawHeight: the size frames are converted to ahead.
    std::shared_ptr<const DecodedFrame> CurrentFrame(int32_t drawWidth, int32_t drawHeight);
    void GetSizeOfMovie(int32_t* width, int32_t* height);
    void StartThread();

    std::shared_ptr<Shared> m_shared;
    platform::Thread m_thread;
    CFrameConversion m_frameConversion;    // for RenderToFrame, at the drawing scale
    CFrameConversion m_textureConversion;  // for RenderToTexture, at the movie's size
};

}  // namespace lumets::host

// The host's movie player library. One IFlashPlayer plays one open movie on a
// thread of its own and reports the end of every pass to its event handler.
#pragma once

#include <cstdint>

#include "lumets/export.h"
#include "lumets/frame.h"
#include "lumets/host/gl_objects.h"
#include "lumets/win_types.h"

enum ENUM_FILE_TYPE : int32_t {
    FILE_TYPE_UNKNOWN = 0,
    FILE_TYPE_SWF = 1,
    FILE_TYPE_MEDIA = 2,
};

// Receives a player's events; the player may call it from any thread, but
// never while holding its own lock. Must outlive the player it is set on.
class LUMETS_HOST_API CFlashPlayerEventHandler {
  public:
    virtual void OnStart(ENUM_FILE_TYPE type);
    // Each time the movie has played through once.
    virtual void OnPlayEnd(ENUM_FILE_TYPE type);
    virtual void OnFinish(ENUM_FILE_TYPE type);

  protected:
    CFlashPlayerEventHandler();
    virtual ~CFlashPlayerEventHandler();
};

// The order of the virtual functions is the host's interface layout; never
// reorder them. Every operation may be called from any thread.
class LUMETS_HOST_API IFlashPlayer {
  public:
    virtual void SetEventHandler(CFlashPlayerEventHandler* handler) = 0;
    // reserved is passed as 0. A file that cannot be decoded opens as "no movie".
    virtual void Open(const char16_t* path, int32_t reserved, bool autoPlay) = 0;
    virtual void Play() = 0;
    virtual void Pause() = 0;
    // Stops playing and goes back to the first frame.
    virtual void Stop() = 0;
    // Ready once a movie is open.
    virtual bool IsReady() = 0;
    // Loading until a movie is open.
    virtual bool IsLoading() = 0;
    // Playing between Play and Pause/Stop.
    virtual bool IsPlaying() = 0;
    // 9th: the movie's frame rate in frames per second (0 without a movie).
    virtual double GetFrameRate() = 0;
    // False, and both 0, without a movie.
    virtual bool GetSize(uint32_t* width, uint32_t* height) = 0;
    // Uploads the current frame into the texture through the pixel-buffer object.
    virtual bool RenderToTexture(GLuint texture, uint32_t* width, uint32_t* height, IPBO* pbo) = 0;
    // Blends the current frame, scaled by scale with its top-left at pos (top-down
    // frame coordinates), into a 24-bit bottom-up B, G, R frame, inside clip only.
    virtual void RenderToFrame(uint8_t* frame, uint32_t width, uint32_t height, const RECT* clip,
                               const POINT* pos, float scale) = 0;
    virtual ~IFlashPlayer() = default;
    // After the host's layout: RenderToFrame into a frame of any layout
    // lumets/frame.h describes. A player that lacks it draws into the
    // library's own layout only, through RenderToFrame.
    virtual void RenderToHostFrame(const lumets_frame* frame, const RECT* clip, const POINT* pos,
                                   float scale);
};

// Null when no player can be made.
LUMETS_HOST_API IFlashPlayer* CreateFlashPlayer();
// Null is ignored.
LUMETS_HOST_API void DeleteFlashPlayer(IFlashPlayer* player);

namespace lumets::host {

// Opens the movie at path and decodes its first frame now, on the calling
// thread, and keeps both for a few seconds: a player that opens the same,
// unchanged file meanwhile (on any thread) starts from them. A host calls it
// before it takes the locks its drawing needs, then creates and opens players
// under them as before, and never waits for a decode there. Null and
// unplayable paths do nothing.
LUMETS_HOST_API void PrepareMovie(const char16_t* path);

// Test hooks: replace the factories (for a scripted player or a recording
// combiner). Null restores the real ones.
using FlashPlayerFactory = IFlashPlayer* (*)();
using FlashPlayerDeleter = void (*)(IFlashPlayer*);
LUMETS_HOST_API void SetFlashPlayerFactory(FlashPlayerFactory create, FlashPlayerDeleter destroy);

}  // namespace lumets::host

// The player library's factory, its test hook and the handler's own bodies.
#include "lumets/host/flash_player.h"

#include <memory>

#include "factory_hook.h"
#include "host_guard.h"
#include "lumets_common/picture.h"
#include "lumets_platform/utf16.h"
#include "media_player.h"
#include "movie.h"

// The player reports only OnPlayEnd; the other two are the library's own
// defaults and do nothing.
CFlashPlayerEventHandler::CFlashPlayerEventHandler() = default;
CFlashPlayerEventHandler::~CFlashPlayerEventHandler() = default;
void CFlashPlayerEventHandler::OnStart(ENUM_FILE_TYPE /*type*/) {}
void CFlashPlayerEventHandler::OnPlayEnd(ENUM_FILE_TYPE /*type*/) {}
void CFlashPlayerEventHandler::OnFinish(ENUM_FILE_TYPE /*type*/) {}

namespace {

using lumets::host::HostGuarded;

// The player the host gets: the real one behind a guard, so that nothing it
// throws reaches the host.
class CGuardedPlayer final : public lumets::host::CHostGuarded<IFlashPlayer> {
  public:
    using CGuardedDecorator::CGuardedDecorator;

    void SetEventHandler(CFlashPlayerEventHandler* handler) override {
        Forward(__func__, &IFlashPlayer::SetEventHandler, handler);
    }
    void Open(const char16_t* path, int32_t reserved, bool autoPlay) override {
        Forward(__func__, &IFlashPlayer::Open, path, reserved, autoPlay);
    }
    void Play() override { Forward(__func__, &IFlashPlayer::Play); }
    void Pause() override { Forward(__func__, &IFlashPlayer::Pause); }
    void Stop() override { Forward(__func__, &IFlashPlayer::Stop); }
    bool IsReady() override { return Forward(__func__, &IFlashPlayer::IsReady); }
    bool IsLoading() override { return Forward(__func__, &IFlashPlayer::IsLoading); }
    bool IsPlaying() override { return Forward(__func__, &IFlashPlayer::IsPlaying); }
    double GetFrameRate() override { return Forward(__func__, &IFlashPlayer::GetFrameRate); }
    bool GetSize(uint32_t* width, uint32_t* height) override {
        return Forward(__func__, &IFlashPlayer::GetSize, width, height);
    }
    bool RenderToTexture(GLuint texture, uint32_t* width, uint32_t* height, IPBO* pbo) override {
        return Forward(__func__, &IFlashPlayer::RenderToTexture, texture, width, height, pbo);
    }
    void RenderToFrame(uint8_t* frame, uint32_t width, uint32_t height, const RECT* clip,
                       const POINT* pos, float scale) override {
        Forward(__func__, &IFlashPlayer::RenderToFrame, frame, width, height, clip, pos, scale);
    }
    void RenderToHostFrame(const lumets_frame* frame, const RECT* clip, const POINT* pos,
                           float scale) override {
        Forward(__func__, &IFlashPlayer::RenderToHostFrame, frame, clip, pos, scale);
    }
};

IFlashPlayer* CreateMediaPlayer() {
    return std::make_unique<CGuardedPlayer>(std::make_unique<lumets::host::CMediaPlayer>())
        .release();
}

void DeleteMediaPlayer(IFlashPlayer* player) {
    delete player;
}

lumets::host::CFactoryHook<IFlashPlayer>& Factories() {
    static lumets::host::CFactoryHook<IFlashPlayer> factories(CreateMediaPlayer, DeleteMediaPlayer);
    return factories;
}

}  // namespace

IFlashPlayer* CreateFlashPlayer() {
    return HostGuarded(__func__, [] { return Factories().Make(); });
}

void DeleteFlashPlayer(IFlashPlayer* player) {
    HostGuarded(__func__, [player] { Factories().Free(player); });
}

namespace lumets::host {

void PrepareMovie(const char16_t* path) {
    HostGuarded(__func__, [path] {
        if (path != nullptr) {
            PrepareMovie(platform::U16ToUtf8(path, kMaxPathUnits));
        }
    });
}

void SetFlashPlayerFactory(FlashPlayerFactory create, FlashPlayerDeleter destroy) {
    Factories().Replace(create, destroy);
}

}  // namespace lumets::host

void IFlashPlayer::RenderToHostFrame(const lumets_frame* frame, const RECT* clip, const POINT* pos,
                                     float scale) {
    if (frame != nullptr && frame->format == LUMETS_FORMAT_BGR24 &&
        frame->flags == LUMETS_FRAME_BOTTOM_UP && frame->width > 0 && frame->height > 0 &&
        frame->stride ==
            static_cast<int64_t>(lumets::RowStride(static_cast<uint32_t>(frame->width), 24))) {
        RenderToFrame(static_cast<uint8_t*>(frame->data), static_cast<uint32_t>(frame->width),
                      static_cast<uint32_t>(frame->height), clip, pos, scale);
    }
}

// The player library's factory, its test hook and the handler's own bodies.
#include "lumets/host/flash_player.h"

#include <mutex>
#include <new>

#include "media_player.h"

// The player reports only OnPlayEnd; the other two are the library's own
// defaults and do nothing.
CFlashPlayerEventHandler::CFlashPlayerEventHandler() = default;
CFlashPlayerEventHandler::~CFlashPlayerEventHandler() = default;
void CFlashPlayerEventHandler::OnStart(ENUM_FILE_TYPE /*type*/) {}
void CFlashPlayerEventHandler::OnPlayEnd(ENUM_FILE_TYPE /*type*/) {}
void CFlashPlayerEventHandler::OnFinish(ENUM_FILE_TYPE /*type*/) {}

namespace {

IFlashPlayer* CreateMediaPlayer() {
    return new (std::nothrow) lumets::host::CMediaPlayer();
}

void DeleteMediaPlayer(IFlashPlayer* player) {
    delete player;
}

struct PlayerFactories {
    std::mutex mutex;
    lumets::host::FlashPlayerFactory create = CreateMediaPlayer;
    lumets::host::FlashPlayerDeleter destroy = DeleteMediaPlayer;
};

PlayerFactories& Factories() {
    static PlayerFactories factories;
    return factories;
}

}  // namespace

IFlashPlayer* CreateFlashPlayer() {
    PlayerFactories& f = Factories();
    lumets::host::FlashPlayerFactory create;
    {
        std::lock_guard<std::mutex> lock(f.mutex);
        create = f.create;
    }
    return create();
}

void DeleteFlashPlayer(IFlashPlayer* player) {
    if (player == nullptr) {
        return;
    }
    PlayerFactories& f = Factories();
    lumets::host::FlashPlayerDeleter destroy;
    {
        std::lock_guard<std::mutex> lock(f.mutex);
        destroy = f.destroy;
    }
    destroy(player);
}

namespace lumets::host {

void SetFlashPlayerFactory(FlashPlayerFactory create, FlashPlayerDeleter destroy) {
    PlayerFactories& f = Factories();
    std::lock_guard<std::mutex> lock(f.mutex);
    const bool restore = create == nullptr || destroy == nullptr;
    f.create = restore ? CreateMediaPlayer : create;
    f.destroy = restore ? DeleteMediaPlayer : destroy;
}

}  // namespace lumets::host

// The player library's factory, its test hook and the handler's own bodies.
#include "lumets/host/flash_player.h"

#include <new>

#include "factory_hook.h"
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

lumets::host::CFactoryHook<IFlashPlayer>& Factories() {
    static lumets::host::CFactoryHook<IFlashPlayer> factories(CreateMediaPlayer, DeleteMediaPlayer);
    return factories;
}

}  // namespace

IFlashPlayer* CreateFlashPlayer() {
    return Factories().Make();
}

void DeleteFlashPlayer(IFlashPlayer* player) {
    Factories().Free(player);
}

namespace lumets::host {

void SetFlashPlayerFactory(FlashPlayerFactory create, FlashPlayerDeleter destroy) {
    Factories().Replace(create, destroy);
}

}  // namespace lumets::host

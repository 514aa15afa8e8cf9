// The exported factories and destroyers. Objects are made and freed inside
// the library only, so allocation and release always use the same runtime.
// The host gets each manager behind its guarding decorator; a factory that
// fails returns null.
#include "frame/guarded_managers.h"
#include "manager/lumet_manager.h"
#include "scene/virtual_scene_manager.h"
#include "weird/weird_subtitle_manager.h"

ILumetManager* CreateLumetManager() {
    return lumets::AtBoundary(__func__, [] {
        return lumets::Guard(std::make_unique<lumets::CLumetManager>()).release();
    });
}

void DeleteLumetManager(ILumetManager* manager) {
    lumets::AtBoundary(__func__, [manager] { delete manager; });
}

IWeirdSubtitleManager* CreateWeirdSubtitleManager() {
    return lumets::AtBoundary(__func__, [] {
        return lumets::Guard(std::make_unique<lumets::CWeirdSubtitleManager>()).release();
    });
}

void DeleteWeirdSubtitleManager(IWeirdSubtitleManager* manager) {
    lumets::AtBoundary(__func__, [manager] { delete manager; });
}

IVirtualSceneManager* CreateVirtualSceneManager() {
    return lumets::AtBoundary(__func__, [] {
        return lumets::Guard(std::make_unique<lumets::CVirtualSceneManager>()).release();
    });
}

void DeleteVirtualSceneManager(IVirtualSceneManager* manager) {
    lumets::AtBoundary(__func__, [manager] { delete manager; });
}

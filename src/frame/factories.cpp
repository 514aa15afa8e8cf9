// The exported factories and destroyers. Objects are made and freed inside
// the library only, so allocation and release always use the same runtime.
#include "manager/lumet_manager.h"
#include "scene/virtual_scene_manager.h"
#include "weird/weird_subtitle_manager.h"

ILumetManager* CreateLumetManager() {
    return new lumets::CLumetManager();
}

void DeleteLumetManager(ILumetManager* manager) {
    delete manager;
}

IWeirdSubtitleManager* CreateWeirdSubtitleManager() {
    return new lumets::CWeirdSubtitleManager();
}

void DeleteWeirdSubtitleManager(IWeirdSubtitleManager* manager) {
    delete manager;
}

IVirtualSceneManager* CreateVirtualSceneManager() {
    return new lumets::CVirtualSceneManager();
}

void DeleteVirtualSceneManager(IVirtualSceneManager* manager) {
    delete manager;
}

// The special members of the three interface classes. Defining them here,
// out of line, makes this library the one home of each class's virtual table
// and type information, which the host links against.
#include "lumets/lumet_manager.h"
#include "lumets/virtual_scene_manager.h"
#include "lumets/weird_subtitle_manager.h"

ILumetManager::ILumetManager() = default;
ILumetManager::ILumetManager(const ILumetManager&) = default;
ILumetManager& ILumetManager::operator=(const ILumetManager&) = default;
ILumetManager::~ILumetManager() = default;

IWeirdSubtitleManager::IWeirdSubtitleManager() = default;
IWeirdSubtitleManager::IWeirdSubtitleManager(const IWeirdSubtitleManager&) = default;
IWeirdSubtitleManager& IWeirdSubtitleManager::operator=(const IWeirdSubtitleManager&) = default;
IWeirdSubtitleManager::~IWeirdSubtitleManager() = default;

IVirtualSceneManager::IVirtualSceneManager() = default;
IVirtualSceneManager::IVirtualSceneManager(const IVirtualSceneManager&) = default;
IVirtualSceneManager& IVirtualSceneManager::operator=(const IVirtualSceneManager&) = default;
IVirtualSceneManager::~IVirtualSceneManager() = default;

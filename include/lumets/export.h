// Symbol visibility for the public API of liblumets and liblumets_platform.
#pragma once

#if defined(_WIN32)
#define LUMETS_EXPORT __declspec(dllexport)
#define LUMETS_IMPORT __declspec(dllimport)
#else
#define LUMETS_EXPORT __attribute__((visibility("default")))
#define LUMETS_IMPORT __attribute__((visibility("default")))
#endif

// LUMETS_API marks what liblumets exports: the three factory/destroyer pairs
// and the three interface classes, nothing else.
#if defined(LUMETS_BUILDING_LIBRARY)
#define LUMETS_API LUMETS_EXPORT
#else
#define LUMETS_API LUMETS_IMPORT
#endif

// LUMETS_PLATFORM_API marks what liblumets_platform exports to liblumets,
// liblumets_host and hosts (the time source).
#if defined(LUMETS_BUILDING_PLATFORM)
#define LUMETS_PLATFORM_API LUMETS_EXPORT
#else
#define LUMETS_PLATFORM_API LUMETS_IMPORT
#endif

// LUMETS_HOST_API marks what liblumets_host exports: the host libraries'
// factories and interfaces.
#if defined(LUMETS_BUILDING_HOST)
#define LUMETS_HOST_API LUMETS_EXPORT
#else
#define LUMETS_HOST_API LUMETS_IMPORT
#endif

// LUMETS_SCENE_API marks what liblumets_scene exports: its C interface, and
// the scene model, reader and player for C++ hosts such as the lumets program.
#if defined(LUMETS_BUILDING_SCENE)
#define LUMETS_SCENE_API LUMETS_EXPORT
#else
#define LUMETS_SCENE_API LUMETS_IMPORT
#endif

/* Lumets scenes for any host, in plain C (C11 or C++).
 *
 * A scene is a scene file (JSON: subtitles, banners, a scene movie and timed
 * actions) played on a clock of its own: lumets_scene_render draws it as it
 * stands at a time in milliseconds into a frame the host owns, in the frame's
 * own layout, without copying it. Two scenes never share a clock, so a host
 * may play any number of them at unrelated times from any threads.
 *
 * No function throws, aborts or keeps a pointer the host passed after it
 * returns. Each returns LUMETS_OK or an error status, and
 * lumets_last_error() then tells why on the calling thread (with file, line
 * and column where the input was text). One scene may be used from several
 * threads; its calls are serialised.
 *
 *     lumets_scene* scene = NULL;
 *     if (lumets_scene_open_file("ticker.json", &scene) != LUMETS_OK)
 *         fprintf(stderr, "%s\n", lumets_last_error());
 *     lumets_frame frame = {pixels, 1280, 720, 1280 * 4, LUMETS_FORMAT_BGRA, 0};
 *     lumets_scene_render(scene, 1500, &frame);
 *     lumets_scene_close(scene);
 */
#ifndef LUMETS_LUMETS_SCENE_H
#define LUMETS_LUMETS_SCENE_H

#include <stddef.h>
#include <stdint.h>

#include "lumets/frame.h"

#if defined(LUMETS_BUILDING_SCENE)
#define LUMETS_SCENE_C_API __attribute__((visibility("default")))
#else
#define LUMETS_SCENE_C_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct lumets_scene lumets_scene;

typedef enum lumets_status {
    LUMETS_OK = 0,
    LUMETS_ERROR_ARGUMENT = 1, /* a null pointer, a time or size out of range */
    LUMETS_ERROR_FRAME = 2,    /* a frame that cannot be drawn into: format, size, stride */
    LUMETS_ERROR_SCENE = 3,    /* a scene file or text that cannot be played */
    LUMETS_ERROR_ACTION = 4,   /* an action that is malformed or names no such subtitle */
    LUMETS_ERROR_GL = 5,       /* OpenGL is needed and missing */
    LUMETS_ERROR_MEMORY = 6,   /* out of memory */
    LUMETS_ERROR_INTERNAL = 7  /* anything else; the message says what */
} lumets_status;

/* The message of the last failed call on this thread ("" when none); valid
 * until the thread's next call into this library. */
LUMETS_SCENE_C_API const char* lumets_last_error(void);

/* Opens a scene file; media paths are taken relative to its folder and every
 * media file must exist. */
LUMETS_SCENE_C_API int lumets_scene_open_file(const char* path, lumets_scene** scene);

/* Opens a scene from JSON text of length bytes. name stands for the text in
 * messages (NULL: "scene"), base_dir anchors relative media paths (NULL: the
 * working folder). */
LUMETS_SCENE_C_API int lumets_scene_open_string(const char* text, size_t length, const char* name,
                                                const char* base_dir, lumets_scene** scene);

/* Closes a scene and stops everything it plays. NULL is ignored. A scene
 * drawn with lumets_scene_render_gl made its GL objects in that context:
 * close it with the context current, so that they go with it. */
LUMETS_SCENE_C_API void lumets_scene_close(lumets_scene* scene);

/* The size the scene is laid out for, its frame rate and duration. Frames of
 * another width show it scaled by width / layout width. */
typedef struct lumets_scene_info {
    int32_t width;
    int32_t height;
    double fps;
    double duration_s;
} lumets_scene_info;
LUMETS_SCENE_C_API int lumets_scene_get_info(const lumets_scene* scene, lumets_scene_info* info);

/* Applies one action now, in the scene file's vocabulary without "at":
 * {"do": "add", "subtitle": {...}}, "remove", "removeAll", "trim", "move",
 * "drag", "text", "plate", "banners" (each banner as in a scene, or null to
 * take it down). An action that names an id or group nothing plays
 * under is LUMETS_ERROR_ACTION and changes nothing. */
LUMETS_SCENE_C_API int lumets_scene_apply(lumets_scene* scene, const char* action_json,
                                          size_t length);

/* Moves the scene's clock to time_ms (carrying out the scene file's actions
 * due on the way) and composites the scene into frame, which holds the
 * picture beneath. A time before the last one starts the scene again from its
 * file and plays it forward: actions applied since are gone. Times run from 0
 * to 86,400,000 (a day). Every playing thread steps through the time passed,
 * so a jump costs in proportion to its length (some half a second for a
 * minute of a busy scene); hosts render in steady steps. */
LUMETS_SCENE_C_API int lumets_scene_render(lumets_scene* scene, int64_t time_ms,
                                           const lumets_frame* frame);

/* The same into the framebuffer bound on the calling thread's current OpenGL
 * context (width x height pixels), over what it holds: the subtitles, the
 * third banner and the scene movie. The other two banners have no GPU path
 * and are drawn into CPU frames only. GL state is restored, and so is the
 * current context where a scene movie drew in the library's own. The scene
 * movie plays in the first context that draws it: once drawn here, CPU frames
 * leave it out. */
LUMETS_SCENE_C_API int lumets_scene_render_gl(lumets_scene* scene, int64_t time_ms, int32_t width,
                                              int32_t height);

/* What plays now, as JSON:
 * {"time_ms": T, "subtitles": [{"id": "...", "group": "...",
 *   "rect": [left, top, right, bottom]}, ...],
 *  "banners": {"tavrin": {"texts": [...]} or null, "quellin": ..., "ombrel": {"text": ...}}}
 * in layout coordinates. On success *json is a NUL-terminated text the
 * caller frees with lumets_free. */
LUMETS_SCENE_C_API int lumets_scene_state(lumets_scene* scene, char** json);

/* Frees what lumets_scene_state handed out. NULL is ignored. */
LUMETS_SCENE_C_API void lumets_free(void* memory);

#ifdef __cplusplus
}
#endif

#endif /* LUMETS_LUMETS_SCENE_H */

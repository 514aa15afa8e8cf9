// The C interface: each call checks its arguments, takes the scene's lock,
// and turns whatever the C++ side throws into a status and a message.
#include "lumets/lumets_scene.h"

#include <epoxy/egl.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <string>

#include "lumets_common/pixel_ops.h"
#include "lumets_platform/utf16.h"
#include "scene_file.h"
#include "scene_limits.h"
#include "scene_player.h"

struct lumets_scene {
    std::mutex lock;
    lumets::playback::Scene scene;
    std::string baseDir;  // relative media paths of live actions
    std::unique_ptr<lumets::playback::CScenePlayer> player;
};

namespace lumets::playback {
namespace {

// The longest a scene runs: a host that asks for more is asking for a stall,
// as every playing thread steps through the time on the way.
constexpr auto kMaxTimeMs = static_cast<int64_t>(limits::kDuration.max * 1000);

thread_local std::string t_lastError;

int Fail(int status, std::string message) {
    t_lastError = std::move(message);
    return status;
}

// Runs body, which returns a status; nothing it throws leaves.
template <typename Body>
int Guard(Body&& body) {
    try {
        t_lastError.clear();
        return body();
    } catch (const SceneError& error) {
        return Fail(LUMETS_ERROR_SCENE, error.what());
    } catch (const std::bad_alloc&) {
        return Fail(LUMETS_ERROR_MEMORY, "out of memory");
    } catch (const std::exception& error) {
        return Fail(LUMETS_ERROR_INTERNAL, error.what());
    } catch (...) {
        return Fail(LUMETS_ERROR_INTERNAL, "an unknown failure");
    }
}

int Open(Scene scene, std::string baseDir, lumets_scene** out) {
    auto handle = std::make_unique<lumets_scene>();
    handle->scene = std::move(scene);
    handle->baseDir = std::move(baseDir);
    handle->player = std::make_unique<CScenePlayer>(handle->scene);
    if (!handle->player->Ok()) {
        return Fail(LUMETS_ERROR_GL, handle->player->Error());
    }
    *out = handle.release();
    return LUMETS_OK;
}

int CheckTime(int64_t timeMs) {
    if (timeMs < 0 || timeMs > kMaxTimeMs) {
        return Fail(LUMETS_ERROR_ARGUMENT,
                    "time_ms must be from 0 to 86400000 (a day), not " + std::to_string(timeMs));
    }
    return LUMETS_OK;
}

// Moves the scene to timeMs; a time before the last starts it again.
int Seek(lumets_scene& s, int64_t timeMs) {
    return PlayTo(s.player, s.scene, static_cast<uint64_t>(timeMs))
               ? static_cast<int>(LUMETS_OK)
               : Fail(LUMETS_ERROR_GL, s.player->Error());
}

std::string FrameProblem(const lumets_frame& frame) {
    if (frame.data == nullptr) {
        return "the frame has no data";
    }
    if (frame.width <= 0 || frame.height <= 0) {
        return "the frame is " + std::to_string(frame.width) + "x" + std::to_string(frame.height) +
               "; both sides must be positive";
    }
    if (frame.format < LUMETS_FORMAT_BGR24 || frame.format > LUMETS_FORMAT_RGBA) {
        return "unknown frame format " + std::to_string(frame.format);
    }
    if ((frame.flags & ~uint32_t{LUMETS_FRAME_BOTTOM_UP}) != 0) {
        return "unknown frame flags " + std::to_string(frame.flags);
    }
    const int64_t bytes = frame.format <= LUMETS_FORMAT_RGB24 ? 3 : 4;
    const int64_t row = bytes * frame.width;
    if (frame.stride == INT64_MIN || (frame.stride < 0 ? -frame.stride : frame.stride) < row) {
        return "a stride of " + std::to_string(frame.stride) + " bytes cannot hold a row of " +
               std::to_string(row) + " bytes";
    }
    return "the frame spans more than 4 GiB";
}

}  // namespace
}  // namespace lumets::playback

using namespace lumets::playback;

extern "C" {

const char* lumets_last_error(void) {
    return t_lastError.c_str();
}

int lumets_scene_open_file(const char* path, lumets_scene** scene) {
    return Guard([&] {
        if (path == nullptr || scene == nullptr) {
            return Fail(LUMETS_ERROR_ARGUMENT, "path and scene must not be null");
        }
        *scene = nullptr;
        return Open(LoadScene(path, WhyNotPlayable), SceneFolder(path), scene);
    });
}

int lumets_scene_open_string(const char* text, size_t length, const char* name,
                             const char* base_dir, lumets_scene** scene) {
    return Guard([&] {
        if (text == nullptr || scene == nullptr) {
            return Fail(LUMETS_ERROR_ARGUMENT, "text and scene must not be null");
        }
        *scene = nullptr;
        if (length > static_cast<size_t>(limits::kSceneBytes.max)) {
            return Fail(LUMETS_ERROR_SCENE, "the scene text is larger than 16 MiB");
        }
        const std::string base = base_dir != nullptr ? base_dir : ".";
        return Open(ParseScene(std::string(text, length), name != nullptr ? name : "scene", base,
                               WhyNotPlayable),
                    base, scene);
    });
}

void lumets_scene_close(lumets_scene* scene) {
    // Closing stops threads and frees; it reports nothing.
    Guard([&] {
        delete scene;
        return LUMETS_OK;
    });
}

int lumets_scene_get_info(const lumets_scene* scene, lumets_scene_info* info) {
    if (scene == nullptr || info == nullptr) {
        return Fail(LUMETS_ERROR_ARGUMENT, "scene and info must not be null");
    }
    t_lastError.clear();
    *info = lumets_scene_info{scene->scene.width, scene->scene.height, scene->scene.fps,
                              scene->scene.duration};
    return LUMETS_OK;
}

int lumets_scene_apply(lumets_scene* scene, const char* action_json, size_t length) {
    return Guard([&] {
        if (scene == nullptr || action_json == nullptr) {
            return Fail(LUMETS_ERROR_ARGUMENT, "scene and action_json must not be null");
        }
        if (length > static_cast<size_t>(limits::kSceneBytes.max)) {
            return Fail(LUMETS_ERROR_ACTION, "the action is larger than 16 MiB");
        }
        Action action;
        try {
            action = ParseAction(std::string(action_json, length), "action", scene->baseDir,
                                 WhyNotPlayable);
        } catch (const SceneError& error) {
            return Fail(LUMETS_ERROR_ACTION, error.what());
        }
        const std::lock_guard<std::mutex> lock(scene->lock);
        const std::string why = scene->player->Apply(action);
        return why.empty() ? LUMETS_OK : Fail(LUMETS_ERROR_ACTION, "action: " + why);
    });
}

int lumets_scene_render(lumets_scene* scene, int64_t time_ms, const lumets_frame* frame) {
    return Guard([&] {
        if (scene == nullptr || frame == nullptr) {
            return Fail(LUMETS_ERROR_ARGUMENT, "scene and frame must not be null");
        }
        if (const int status = CheckTime(time_ms); status != LUMETS_OK) {
            return status;
        }
        if (lumets::FrameView(frame).data == nullptr) {
            return Fail(LUMETS_ERROR_FRAME, FrameProblem(*frame));
        }
        const std::lock_guard<std::mutex> lock(scene->lock);
        if (const int status = Seek(*scene, time_ms); status != LUMETS_OK) {
            return status;
        }
        scene->player->Draw(*frame);
        return static_cast<int>(LUMETS_OK);
    });
}

int lumets_scene_render_gl(lumets_scene* scene, int64_t time_ms, int32_t width, int32_t height) {
    return Guard([&] {
        if (scene == nullptr) {
            return Fail(LUMETS_ERROR_ARGUMENT, "scene must not be null");
        }
        if (const int status = CheckTime(time_ms); status != LUMETS_OK) {
            return status;
        }
        if (width <= 0 || height <= 0 || width > 16384 || height > 16384) {
            return Fail(LUMETS_ERROR_ARGUMENT, "the target must be 1 to 16384 pixels a side, not " +
                                                   std::to_string(width) + "x" +
                                                   std::to_string(height));
        }
        // Without a current context every GL call would end the process.
        if (eglGetCurrentContext() == EGL_NO_CONTEXT) {
            return Fail(LUMETS_ERROR_GL, "no OpenGL (EGL) context is current on this thread");
        }
        const std::lock_guard<std::mutex> lock(scene->lock);
        if (const int status = Seek(*scene, time_ms); status != LUMETS_OK) {
            return status;
        }
        return scene->player->DrawToTarget(width, height)
                   ? static_cast<int>(LUMETS_OK)
                   : Fail(LUMETS_ERROR_GL, "the scene cannot draw with OpenGL");
    });
}

int lumets_scene_state(lumets_scene* scene, char** json) {
    return Guard([&] {
        if (scene == nullptr || json == nullptr) {
            return Fail(LUMETS_ERROR_ARGUMENT, "scene and json must not be null");
        }
        *json = nullptr;
        std::string text;
        {
            const std::lock_guard<std::mutex> lock(scene->lock);
            text = scene->player->StateJson();
        }
        // Handed out through malloc, so that lumets_free pairs with it in any
        // language.
        char* copy = static_cast<char*>(std::malloc(text.size() + 1));
        if (copy == nullptr) {
            return Fail(LUMETS_ERROR_MEMORY, "out of memory");
        }
        std::memcpy(copy, text.c_str(), text.size() + 1);
        *json = copy;
        return static_cast<int>(LUMETS_OK);
    });
}

void lumets_free(void* memory) {
    std::free(memory);
}

}  // extern "C"

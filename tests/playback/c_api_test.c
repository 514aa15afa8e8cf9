/* The scene library's C interface, driven from C as a host in another
 * language would: every call's status and message, the error paths first,
 * then a scene that plays, takes actions and reports its state. */
#include <lumets/lumets_scene.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int g_failures = 0;

/* The status must be expected and, on failure, the message must hold part. */
static void Expect(int status, int expected, const char* part, const char* what) {
    const char* message = lumets_last_error();
    if (status != expected || (expected != LUMETS_OK && strstr(message, part) == NULL) ||
        (expected == LUMETS_OK && message[0] != '\0')) {
        fprintf(stderr, "FAIL %s: status %d (want %d), message \"%s\" (want \"%s\")\n", what,
                status, expected, message, part);
        ++g_failures;
    }
}

static const char kScene[] =
    "{\"size\": [320, 180], \"subtitles\": [{\"id\": \"hello\", \"group\": \"chat\",\n"
    "  \"at\": [10, 120], \"items\": [{\"text\": {\"content\": \"Hello\", \"clip\": [0, 0, 300, "
    "40],\n"
    "  \"style\": {\"fontSize\": 24}}, \"plate\": {\"color\": \"#204080\", \"opacity\": 80},\n"
    "  \"plays\": 0}]}]}";

int main(void) {
    lumets_scene* scene = NULL;
    uint8_t pixels[320 * 180 * 4];
    lumets_frame frame = {pixels, 320, 180, 320 * 4, LUMETS_FORMAT_BGRA, 0};

    /* Null handles, null arguments, malformed and missing scenes. */
    Expect(lumets_scene_open_file(NULL, &scene), LUMETS_ERROR_ARGUMENT, "null", "null path");
    Expect(lumets_scene_open_string(kScene, sizeof kScene - 1, NULL, NULL, NULL),
           LUMETS_ERROR_ARGUMENT, "null", "null out");
    Expect(lumets_scene_open_file("/nonexistent/scene.json", &scene), LUMETS_ERROR_SCENE,
           "not found", "missing file");
    Expect(lumets_scene_open_string("{\"size\": [1, 2]}", 16, "bad.json", NULL, &scene),
           LUMETS_ERROR_SCENE, "bad.json:1:10", "size out of range");
    Expect(lumets_scene_open_string("{\n  \"fps\": ,", 12, "broken.json", NULL, &scene),
           LUMETS_ERROR_SCENE, "broken.json:2:", "malformed JSON");
    if (scene != NULL) {
        fprintf(stderr, "FAIL a failed open handed out a scene\n");
        ++g_failures;
    }
    Expect(lumets_scene_render(NULL, 0, &frame), LUMETS_ERROR_ARGUMENT, "null", "null scene");
    Expect(lumets_scene_apply(NULL, "{}", 2), LUMETS_ERROR_ARGUMENT, "null", "apply null");
    lumets_scene_close(NULL);

    Expect(lumets_scene_open_string(kScene, sizeof kScene - 1, "chat.json", NULL, &scene),
           LUMETS_OK, "", "open");
    if (scene == NULL) {
        return 1;
    }
    lumets_scene_info info;
    Expect(lumets_scene_get_info(scene, &info), LUMETS_OK, "", "info");
    if (info.width != 320 || info.height != 180) {
        fprintf(stderr, "FAIL info %dx%d\n", info.width, info.height);
        ++g_failures;
    }

    /* Frames that cannot be drawn into leave the bytes as they were. */
    memset(pixels, 0x5A, sizeof pixels);
    Expect(lumets_scene_render(scene, 0, NULL), LUMETS_ERROR_ARGUMENT, "null", "null frame");
    const lumets_frame bad[] = {
        {NULL, 320, 180, 1280, LUMETS_FORMAT_BGRA, 0},       {pixels, 0, 180, 1280, 4, 0},
        {pixels, 320, -180, 1280, LUMETS_FORMAT_BGRA, 0},    {pixels, 320, 180, 1280, 99, 0},
        {pixels, 320, 180, 1279, LUMETS_FORMAT_BGRA, 0},     {pixels, 320, 180, 1280, 4, 0x80},
        {pixels, 320, 180, INT64_MIN, LUMETS_FORMAT_BGRA, 0}};
    const char* why[] = {
        "no data",           "both sides",          "both sides",       "unknown frame format",
        "cannot hold a row", "unknown frame flags", "cannot hold a row"};
    for (size_t i = 0; i < sizeof bad / sizeof bad[0]; ++i) {
        Expect(lumets_scene_render(scene, 40, &bad[i]), LUMETS_ERROR_FRAME, why[i], why[i]);
    }
    Expect(lumets_scene_render(scene, -1, &frame), LUMETS_ERROR_ARGUMENT, "time_ms", "time < 0");
    Expect(lumets_scene_render(scene, 86400001, &frame), LUMETS_ERROR_ARGUMENT, "time_ms",
           "time past a day");
    for (size_t i = 0; i < sizeof pixels; ++i) {
        if (pixels[i] != 0x5A) {
            fprintf(stderr, "FAIL a refused frame was written at byte %zu\n", i);
            ++g_failures;
            break;
        }
    }

    /* Bad actions: malformed, located, unknown ids; none changes the scene. */
    const char* actions[][2] = {
        {"{\"do\": \"remove\", \"id\": \"nobody\"}", "nobody"},
        {"{\"do\": \"move\", \"id\": \"ghost\", \"to\": [1, 2]}", "ghost"},
        {"{\"do\": \"remove\", \"id\": \"hello\", \"at\": 3}", "action:1:"},
        {"{\"do\": \"explode\"}", "add, remove"},
        {"{\"do\": \"move\", \"id\": \"hello\",\n \"to\": [1]}", "action:2:"},
        {"[1, 2", "action:1:"}};
    for (size_t i = 0; i < sizeof actions / sizeof actions[0]; ++i) {
        Expect(lumets_scene_apply(scene, actions[i][0], strlen(actions[i][0])), LUMETS_ERROR_ACTION,
               actions[i][1], actions[i][0]);
    }
    Expect(lumets_scene_render_gl(scene, 40, 320, 180), LUMETS_ERROR_GL, "context",
           "GL without a context");

    /* The scene plays: the plate shows, actions take, the state says so; the
     * fourth byte of each pixel stays the host's. */
    Expect(lumets_scene_render(scene, 500, &frame), LUMETS_OK, "", "render");
    size_t changed = 0;
    int fourth = 1;
    for (size_t i = 0; i < sizeof pixels; i += 4) {
        changed += memcmp(pixels + i, "\x5A\x5A\x5A", 3) != 0;
        fourth = fourth && pixels[i + 3] == 0x5A;
    }
    if (changed < 1000 || !fourth) {
        fprintf(stderr, "FAIL render changed %zu pixels, fourth byte kept %d\n", changed, fourth);
        ++g_failures;
    }
    const char add[] =
        "{\"do\": \"add\", \"subtitle\": {\"id\": \"second\", \"group\": \"chat\", \"items\": "
        "[{\"text\": {\"content\": \"Two\"}}]}}";
    Expect(lumets_scene_apply(scene, add, sizeof add - 1), LUMETS_OK, "", "add");
    Expect(lumets_scene_apply(scene, "{\"do\": \"move\", \"id\": \"hello\", \"to\": [40, 20]}", 46),
           LUMETS_OK, "", "move");
    Expect(lumets_scene_render(scene, 600, &frame), LUMETS_OK, "", "render after actions");
    char* state = NULL;
    Expect(lumets_scene_state(scene, &state), LUMETS_OK, "", "state");
    if (state == NULL || strstr(state, "\"time_ms\":600") == NULL ||
        strstr(state, "\"id\":\"second\"") == NULL || strstr(state, "\"group\":\"chat\"") == NULL) {
        fprintf(stderr, "FAIL state %s\n", state != NULL ? state : "(null)");
        ++g_failures;
    }
    lumets_free(state);
    Expect(lumets_scene_state(scene, NULL), LUMETS_ERROR_ARGUMENT, "null", "state null");

    /* Back in time: the scene starts again from its file. */
    Expect(lumets_scene_render(scene, 100, &frame), LUMETS_OK, "", "render earlier");
    Expect(lumets_scene_apply(scene, "{\"do\": \"remove\", \"id\": \"second\"}", 32),
           LUMETS_ERROR_ACTION, "second", "the restarted scene lost the live add");
    lumets_scene_close(scene);

    return g_failures == 0 ? 0 : 1;
}

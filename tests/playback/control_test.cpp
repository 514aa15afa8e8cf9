// The control server inside a process, under the sanitizers: a frame loop
// publishing frames while clients post actions, read the state and the
// preview and follow the events, all at once. Every acknowledged action is
// applied once, and stopping with clients connected ends every thread.
#include <httplib.h>

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "control_server.h"
#include "scene_file.h"
#include "scene_player.h"

namespace lumets::playback {
namespace {

TEST(Control, ClientsAndTheFrameLoopMeetOnlyAtFrameBoundaries) {
    const Scene scene =
        LoadScene(std::string(LUMETS_SOURCE_DIR) + "/docs/examples/ticker.json", WhyNotPlayable);
    CScenePlayer player(scene);
    ControlOptions options;
    options.token = "0123456789abcdef0123456789abcdef";
    CControlServer server(options);
    std::string why;
    ASSERT_TRUE(server.Start(&why)) << why;
    const std::string url = server.Url();
    const std::string host = url.substr(7, url.size() - 8);  // "127.0.0.1:PORT"

    std::atomic<bool> running{true};
    std::thread frames([&] {
        std::vector<uint8_t> pixels(size_t{320} * 180 * 4, 0x40);
        const lumets_frame frame{pixels.data(), 320, 180, 320 * 4, LUMETS_FORMAT_BGRA, 0};
        for (uint64_t i = 0; running && i < 3000; ++i) {
            player.AdvanceTo(FrameTimeMs(i, 30));
            server.TakeActions(player, i);
            player.Draw(frame);
            server.Publish(player, i, frame);
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    });
    const httplib::Headers auth = {{"Authorization", "Bearer " + options.token}};
    std::atomic<int> events{0};
    std::thread follower([&] {
        httplib::Client client(host);
        client.set_read_timeout(3, 0);
        client.Get("/events", auth, [&](const char* data, size_t length) {
            events += static_cast<int>(std::string(data, length).find("event: action") !=
                                       std::string::npos);
            return running.load();
        });
    });
    std::vector<std::thread> posters;
    std::atomic<int> applied{0};
    for (int c = 0; c < 3; ++c) {
        posters.emplace_back([&, c] {
            httplib::Client client(host);
            for (int i = 0; i < 20; ++i) {
                const std::string id = "c" + std::to_string(c) + "-" + std::to_string(i);
                const std::string add =
                    R"({"do": "add", "subtitle": {"id": ")" + id +
                    R"(", "group": "g", "items": [{"text": {"content": "x"}, "plays": 0}]}})";
                const auto res = client.Post("/actions", auth, add, "application/json");
                applied += res && res->status == 200 ? 1 : 0;
                client.Get("/state", auth);
            }
            client.Get("/frame.png", auth);
        });
    }
    for (std::thread& t : posters) {
        t.join();
    }
    EXPECT_EQ(applied.load(), 60);
    const std::string state = httplib::Client(host).Get("/state", auth)->body;
    for (int c = 0; c < 3; ++c) {
        EXPECT_NE(state.find("\"c" + std::to_string(c) + "-19\""), std::string::npos) << state;
    }
    // The follower is still connected when the server stops.
    server.Stop();
    running = false;
    follower.join();
    frames.join();
    EXPECT_GT(events.load(), 0);
}

}  // namespace
}  // namespace lumets::playback

// The player under concurrent use, on real time: these are the cases where
// threads really overlap. Run under ThreadSanitizer too.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "lumets/host/flash_player.h"
#include "host/media_files.h"

namespace {

using lumets::test::MediaFiles;

// Mirrors the subtitle item: OnPlayEnd takes the owner's lock, which the
// owner also holds while it calls the player, and pauses the player.
class LockingHandler : public CFlashPlayerEventHandler {
  public:
    void OnPlayEnd(ENUM_FILE_TYPE) override {
        entered = true;
        {
            std::lock_guard<std::recursive_mutex> lock(ownerLock);
            ++ends;
            if (pauseOnEnd && player != nullptr) {
                player->Pause();
            }
        }
        // The last touch of this object: a test may destroy it once it sees this.
        left = true;
    }

    std::recursive_mutex ownerLock;
    IFlashPlayer* player = nullptr;
    bool pauseOnEnd = false;
    std::atomic<bool> entered{false};
    std::atomic<bool> left{false};
    std::atomic<int> ends{0};
};

bool WaitFor(const std::atomic<bool>& flag, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!flag && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return flag;
}

// The owner deletes its player while holding the lock that the player's
// thread is waiting for inside OnPlayEnd: deleting must not wait for it.
TEST(PlayerThreads, DeletingThePlayerWhileItsCallbackWaitsForTheOwnersLockDoesNotDeadlock) {
    LockingHandler handler;
    IFlashPlayer* player = CreateFlashPlayer();
    player->SetEventHandler(&handler);
    handler.player = player;
    player->Open(MediaFiles::Instance().Path16("fast.apng").c_str(), 0, false);
    ASSERT_TRUE(player->IsReady());
    {
        std::lock_guard<std::recursive_mutex> lock(handler.ownerLock);
        player->Play();
        ASSERT_TRUE(WaitFor(handler.entered, std::chrono::seconds(5)));
        handler.player = nullptr;
        DeleteFlashPlayer(player);  // returns although the callback is blocked on us
    }
    ASSERT_TRUE(WaitFor(handler.left, std::chrono::seconds(5)));
    EXPECT_EQ(handler.ends, 1);
}

TEST(PlayerThreads, OwnerLockHeldAcrossCallsWhileTheCallbackPauses) {
    LockingHandler handler;
    handler.pauseOnEnd = true;
    IFlashPlayer* player = CreateFlashPlayer();
    player->SetEventHandler(&handler);
    {
        std::lock_guard<std::recursive_mutex> lock(handler.ownerLock);
        handler.player = player;
        player->Open(MediaFiles::Instance().Path16("fast.apng").c_str(), 0, true);
    }
    ASSERT_TRUE(WaitFor(handler.left, std::chrono::seconds(5)));
    {
        std::lock_guard<std::recursive_mutex> lock(handler.ownerLock);
        EXPECT_FALSE(player->IsPlaying());
        player->Stop();
        DeleteFlashPlayer(player);
    }
}

// One thread renders and queries, another plays, pauses, stops and reopens,
// while the player's own thread advances frames and reports passes.
TEST(PlayerThreads, RenderingWhileAnotherThreadControlsThePlayer) {
    LockingHandler handler;
    IFlashPlayer* player = CreateFlashPlayer();
    player->SetEventHandler(&handler);
    player->Open(MediaFiles::Instance().Path16("fast.apng").c_str(), 0, true);
    std::atomic<bool> done{false};

    std::thread renderer([&] {
        std::vector<uint8_t> frame(160 * 120 * 3, 0);
        const RECT clip{0, 0, 160, 120};
        const POINT pos{5, 5};
        while (!done) {
            std::lock_guard<std::recursive_mutex> lock(handler.ownerLock);
            uint32_t w = 0;
            uint32_t h = 0;
            if (player->GetSize(&w, &h)) {
                EXPECT_EQ(w, 64u);
            }
            player->RenderToFrame(frame.data(), 160, 120, &clip, &pos, 1.f);
            player->RenderToFrame(frame.data(), 160, 120, &clip, &pos, 1.5f);
            player->IsReady();
            player->IsLoading();
        }
    });
    std::thread controller([&] {
        const std::u16string other = MediaFiles::Instance().Path16("anim.gif");
        for (int i = 0; i < 40; ++i) {
            player->Play();
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            player->Pause();
            player->Play();
            std::this_thread::sleep_for(std::chrono::milliseconds(3));
            if (i % 10 == 9) {
                player->Stop();
                player->Open(other.c_str(), 0, true);
            }
        }
    });
    controller.join();
    done = true;
    renderer.join();
    DeleteFlashPlayer(player);
}

}  // namespace

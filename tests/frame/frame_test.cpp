#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>

#include "lumets_platform/lock.h"
#include "lumets/lumets.h"

namespace {

TEST(Factories, CreateIndependentObjectsAndIgnoreNullOnDelete) {
    ILumetManager* a = CreateLumetManager();
    ILumetManager* b = CreateLumetManager();
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    EXPECT_NE(a, b);
    DeleteLumetManager(a);
    DeleteLumetManager(b);
    DeleteLumetManager(nullptr);

    IWeirdSubtitleManager* weird = CreateWeirdSubtitleManager();
    ASSERT_NE(weird, nullptr);
    DeleteWeirdSubtitleManager(weird);
    DeleteWeirdSubtitleManager(nullptr);

    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    ASSERT_NE(scene, nullptr);
    EXPECT_EQ(scene->GetSceneTexture(), 0u);
    DeleteVirtualSceneManager(scene);
    DeleteVirtualSceneManager(nullptr);
}

TEST(Factories, FreshManagersLeaveHostBuffersAlone) {
    ILumetManager* manager = CreateLumetManager();
    POINT position{7, 9};
    EXPECT_FALSE(manager->GetSubtitlePosition(u"missing", &position));
    EXPECT_EQ(position.x, 0);
    EXPECT_EQ(position.y, 0);
    RECT rect{1, 2, 3, 4};
    EXPECT_FALSE(manager->GetSubtitleRect(u"missing", &rect));
    EXPECT_EQ(rect.right, 3);
    uint32_t count = 42;
    EXPECT_FALSE(manager->GetPlayingInGroup(u"g", nullptr, &count));
    EXPECT_EQ(count, 42u);
    DeleteLumetManager(manager);

    IWeirdSubtitleManager* weird = CreateWeirdSubtitleManager();
    uint8_t frame[4 * 3 * 4];
    std::memset(frame, 0x5A, sizeof frame);
    const POINT origin{0, 0};
    weird->ComposeTavrin(frame, 4, 4, &origin);
    weird->ComposeQuellin(frame, 4, 4, &origin);
    for (uint8_t byte : frame) {
        ASSERT_EQ(byte, 0x5A);
    }
    int width = -1;
    int height = -1;
    weird->DrawOmbrelToTexture(1, &width, &height, nullptr);
    EXPECT_EQ(width, -1);
    EXPECT_EQ(height, -1);
    DeleteWeirdSubtitleManager(weird);
}

TEST(CLock, IsRecursiveAndExcludesOtherThreadsUntilFullyReleased) {
    lumets::CLock lock;
    std::atomic<bool> entered{false};
    lock.Lock();
    lock.Lock();
    std::thread other([&] {
        lumets::CAutoLock guard(&lock);
        entered = true;
    });
    lock.Unlock();
    // Still held once: the other thread must not get in.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(entered.load());
    lock.Unlock();
    other.join();
    EXPECT_TRUE(entered.load());
}

TEST(CLock, AutoLockReleasesOnEveryPath) {
    lumets::CLock lock;
    try {
        lumets::CAutoLock guard(&lock);
        throw 1;
    } catch (int) {
    }
    std::atomic<bool> entered{false};
    std::thread other([&] {
        lumets::CAutoLock guard(&lock);
        entered = true;
    });
    other.join();
    EXPECT_TRUE(entered.load());
    lumets::CAutoLock nullGuard(nullptr);  // tolerated
}

}  // namespace

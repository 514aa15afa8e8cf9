// The exported factories: every call makes a new object, and the destroyers
// take null as the host may pass it.
#include <gtest/gtest.h>

#include "lumets/lumets.h"

namespace {

TEST(Factories, MakeIndependentObjectsAndDestroyersTakeNull) {
    ILumetManager* manager = CreateLumetManager();
    ILumetManager* other = CreateLumetManager();
    IWeirdSubtitleManager* weird = CreateWeirdSubtitleManager();
    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    ASSERT_TRUE(manager != nullptr && other != nullptr && weird != nullptr && scene != nullptr);
    EXPECT_NE(manager, other);
    // Nothing plays in a fresh scene; a failed lookup clears the position.
    EXPECT_EQ(scene->GetSceneTexture(), 0u);
    POINT position{7, 9};
    EXPECT_FALSE(manager->GetSubtitlePosition(u"missing", &position));
    EXPECT_TRUE(position.x == 0 && position.y == 0);
    DeleteLumetManager(manager);
    DeleteLumetManager(other);
    DeleteWeirdSubtitleManager(weird);
    DeleteVirtualSceneManager(scene);
    DeleteLumetManager(nullptr);
    DeleteWeirdSubtitleManager(nullptr);
    DeleteVirtualSceneManager(nullptr);
}

}  // namespace

// Every exported operation, through the public factories, with its first,
// second, third ... allocation failing in turn: nothing is thrown at the
// caller, and afterwards the object still works and is deleted cleanly.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "common/gl_context.h"
#include "common/scratch_files.h"
#include "lumets/host/flash_player.h"
#include "lumets/lumets.h"

// These operators take their blocks from malloc and give them back to free,
// which GCC cannot see through once they are inlined.
#pragma GCC diagnostic ignored "-Wmismatched-new-delete"

namespace {
// Counts down this thread's allocations made by our own code (this program
// with the library linked in, the host and platform libraries); the one that
// reaches 0 fails. Others pass: the GL driver cannot take an exception.
thread_local int t_failIn = 0;

void* Allocate(std::size_t size, void* caller) {
    static const auto module = [](const void* address) {
        Dl_info info{};
        return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
    };
    static void* const ours[] = {module(reinterpret_cast<void*>(&Allocate)),
                                 module(reinterpret_cast<void*>(&CreateFlashPlayer)),
                                 module(reinterpret_cast<void*>(&lumets::SetTimeMode))};
    const bool fail = t_failIn > 0 && std::count(ours, ours + 3, module(caller)) && --t_failIn == 0;
    void* block = fail ? nullptr : std::malloc(size == 0 ? 1 : size);
    return block != nullptr ? block : throw std::bad_alloc();
}
}  // namespace

// clang-format off
void* operator new(std::size_t size) { return Allocate(size, __builtin_return_address(0)); }
void* operator new[](std::size_t size) { return Allocate(size, __builtin_return_address(0)); }
void operator delete(void* block) noexcept { std::free(block); }
void operator delete[](void* block) noexcept { std::free(block); }
void operator delete(void* block, std::size_t) noexcept { std::free(block); }
void operator delete[](void* block, std::size_t) noexcept { std::free(block); }
// Others' nothrow allocations (the GL driver's) come back through the deletes above.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept { return std::malloc(size == 0 ? 1 : size); }
void operator delete(void* block, const std::nothrow_t&) noexcept { std::free(block); }
void operator delete[](void* block, const std::nothrow_t&) noexcept { std::free(block); }
// clang-format on

namespace lumets {
namespace {

class Boundary : public test::GlTest<64, 48> {
  protected:
    void SetUp() override {
        test::GlTest<64, 48>::SetUp();
        const std::string make = "cd " + test::Quote(m_dir.Path().string()) +
                                 " && ffmpeg -nostdin -v error -f lavfi -i color=c=red@0.5:s=40x36";
        ASSERT_TRUE(test::RunCommand(make + " -frames:v 1 -pix_fmt rgba a.png"));
        ASSERT_TRUE(test::RunCommand(make + ":r=10 -frames:v 3 -plays 0 -f apng m"));
        std::copy_n(u"文字 text", 8, m_text->text);
        m_text->rcClip = RECT{0, 0, 64, 48};
        m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        m_texture = CGLObjectFactory::CreateTexture();
        SetTimeMode(TimeMode::Virtual);
    }
    void TearDown() override {
        CGLObjectFactory::DestroyPBO(m_pbo);
        SetTimeMode(TimeMode::Real);
    }

    // Runs calls with its nth allocation failing, n = 1, 2, ... until calls
    // makes fewer than n; then works() must hold.
    static void FailEachAllocation(const std::function<void()>& calls,
                                   const std::function<bool()>& works) {
        for (int n = 1, reached = 1; reached; ++n) {
            t_failIn = n;
            EXPECT_NO_THROW(calls()) << "allocation " << n;
            reached = t_failIn == 0;
            t_failIn = 0;
        }
        EXPECT_TRUE(works());
    }

    test::ScratchDir m_dir;
    std::unique_ptr<TextPart> m_text = std::make_unique<TextPart>();
    std::vector<uint8_t> m_frame = std::vector<uint8_t>(64 * 3 * 48);
    const RECT m_all{0, 0, 64, 48};
    const POINT m_at{0, 0};
    IPBO* m_pbo = nullptr;
    GLuint m_texture = 0;
};

TEST_F(Boundary, SubtitleManager) {
    ILumetManager* m = CreateLumetManager();
    ItemDescription item{nullptr, m_text.get(), nullptr, 0, {}};
    const BackgroundPart plate{0x204080, 70, 0, {}};
    SubtitleRectEntry entries[2];
    uint32_t count = 0;
    RECT rect{};
    POINT point{};
    char16_t id[260];
    const auto add = [&] {  // with no allocation failing
        const int n = std::exchange(t_failIn, 0);
        m->AddSubtitle(u"a", u"g", &item, 1, 4, 4, true, 0);
        t_failIn = n;
    };
    FailEachAllocation(
        [&] {
            DeleteLumetManager(CreateLumetManager());
            add();
            m->TrimGroup(u"g", 1), m->GetPlayingInGroup(u"g", entries, &count);
            m->HitTestGroup(u"g", 5, 5, id, &rect), m->GetSubtitleRect(u"a", &rect);
            m->GetSubtitlePosition(u"a", &point), m->MoveSubtitle(u"a", 8, 8);
            m->UpdateSubtitleText(u"a", m_text.get()), m->UpdateSubtitleBackground(u"a", &plate);
            m->DrawToBuffer(m_frame.data(), 64, 48, 1.5f), m->DrawToTarget(64, 48, 1.f);
            m->ReleaseGpuResources(), m->AddSubtitle(u"b", u"g", nullptr, 0, 0, 0, false, 0);
            m->RemoveSubtitle(u"a"), m->RemoveAllSubtitles();
        },
        [&] { return add(), m->GetSubtitleRect(u"a", &rect); });
    DeleteLumetManager(m);
}

TEST_F(Boundary, BannerManager) {
    IWeirdSubtitleManager* m = CreateWeirdSubtitleManager();
    const std::u16string image = m_dir.File16("a.png");
    int width = 0, height = 0;
    FailEachAllocation(
        [&] {
            DeleteWeirdSubtitleManager(CreateWeirdSubtitleManager());
            m->SetTavrinTexts(u"a", u"b", u"c", u"d", u"e", u"f");
            m->LoadTavrinImages(image.c_str(), image.c_str());
            m->ComposeTavrin(m_frame.data(), 64, 48, &m_at), m->SetQuellinTexts(u"a", u"b", 0);
            m->LoadQuellinPlate(image.c_str()), m->ComposeQuellin(m_frame.data(), 64, 48, &m_at);
            m->SetOmbrelText(u"文字", 12), m->LoadOmbrelImages(image.c_str(), image.c_str());
            m->ComposeOmbrel(m_frame.data(), 64, 48, &m_all, 1.5f);
            m->DrawOmbrelToTexture(m_texture, &width, &height, m_pbo);
        },
        [&] { return m->DrawOmbrelToTexture(m_texture, &width, &(height = 0), m_pbo), height; });
    DeleteWeirdSubtitleManager(m);
}

TEST_F(Boundary, SceneManagerAndPlayer) {
    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    IFlashPlayer* player = CreateFlashPlayer();
    const std::u16string movie = m_dir.File16("m");
    uint32_t width = 0, height = 0;
    FailEachAllocation(
        [&] {
            DeleteVirtualSceneManager(CreateVirtualSceneManager());
            scene->OpenScene(movie.c_str(), 0), scene->RenderScene(0, 0);
            scene->IsScenePlaying(), scene->GetSceneTexture(), scene->StopScene();
            DeleteFlashPlayer(CreateFlashPlayer());
            player->SetEventHandler(nullptr), player->Open(movie.c_str(), 0, true);
            player->Play(), player->Pause(), player->Stop(), player->IsReady();
            player->IsLoading(), player->IsPlaying(), player->GetFrameRate();
            player->GetSize(&width, &height);
            player->RenderToTexture(m_texture, &width, &height, m_pbo);
            player->RenderToFrame(m_frame.data(), 64, 48, &m_all, &m_at, 1.5f);
        },
        [&] { return player->Open(movie.c_str(), 0, true), player->GetSize(&width, &height); });
    DeleteFlashPlayer(player);
    DeleteFlashPlayer(nullptr);  // as the host may pass it
    DeleteVirtualSceneManager(scene);
}

}  // namespace
}  // namespace lumets

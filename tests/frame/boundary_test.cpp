// Every exported operation, through the public factories, with its first,
// second, third ... allocation failing in turn: nothing is thrown at the
// caller, and afterwards the object still works and is deleted cleanly.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <functional>
#include <memory>
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
// Counts down the allocations of this thread made by our own code (the test
// with the library linked in, the host and platform libraries); the one that
// reaches 0 fails. Others pass: the GL driver cannot take an exception.
thread_local int t_failIn = 0;

bool FromOurCode(void* caller) {
    static const auto base = [](const void* address) {
        Dl_info info{};
        return dladdr(address, &info) != 0 ? info.dli_fbase : nullptr;
    };
    static void* const ours[] = {base(reinterpret_cast<void*>(&FromOurCode)),
                                 base(reinterpret_cast<void*>(&CreateFlashPlayer)),
                                 base(reinterpret_cast<void*>(&lumets::SetTimeMode))};
    void* const module = base(caller);
    return module == ours[0] || module == ours[1] || module == ours[2];
}
}  // namespace

void* operator new(std::size_t size) {
    const bool fail = t_failIn > 0 && FromOurCode(__builtin_return_address(0)) && --t_failIn == 0;
    void* block = fail ? nullptr : std::malloc(size == 0 ? 1 : size);
    return block != nullptr ? block : throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void operator delete(void* block) noexcept {
    std::free(block);
}
void operator delete[](void* block) noexcept {
    std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
    std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
    std::free(block);
}

namespace lumets {
namespace {

using Steps = std::vector<std::pair<const char*, std::function<void()>>>;

class Boundary : public test::GlTest<64, 48> {
  protected:
    void SetUp() override {
        test::GlTest<64, 48>::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        m_pbo = CGLObjectFactory::CreatePBO(PBOTypeUnpack, 32);
        m_texture = CGLObjectFactory::CreateTexture();
        SetTimeMode(TimeMode::Virtual);
        const std::string make = "ffmpeg -nostdin -v error -y -f lavfi -i color=c=red@0.5:s=40x36";
        ASSERT_TRUE(test::RunCommand(make + " -frames:v 1 -pix_fmt rgba " + Quoted("a.png")));
        ASSERT_TRUE(test::RunCommand(make + ":r=10 -frames:v 3 -plays 0 -f apng " + Quoted("m")));
        std::copy_n(u"文字 text", 8, m_text->text);
        m_text->rcClip = RECT{0, 0, 64, 48};
    }
    void TearDown() override {
        CGLObjectFactory::DestroyPBO(m_pbo);
        SetTimeMode(TimeMode::Real);
    }
    std::string Quoted(const char* name) const { return test::Quote(m_dir.File(name)); }
    std::u16string Path(const char* name) const {
        const std::string path = m_dir.File(name);
        return std::u16string(path.begin(), path.end());  // the temp folder is ASCII
    }

    // Runs each step with its nth allocation failing, n = 1, 2, ... until the
    // step makes fewer than n; then works() must hold.
    static void FailEachAllocation(const Steps& steps, const std::function<bool()>& works) {
        for (const auto& [name, step] : steps) {
            for (int n = 1, reached = 1; reached; ++n) {
                t_failIn = n;
                EXPECT_NO_THROW(step()) << name << ", allocation " << n;
                reached = t_failIn == 0;
                t_failIn = 0;
            }
            EXPECT_TRUE(works()) << "after " << name;
        }
    }

    test::ScratchDir m_dir;
    std::unique_ptr<TextPart> m_text = std::make_unique<TextPart>();
    std::vector<uint8_t> m_frame = std::vector<uint8_t>(64 * 3 * 48);
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
    // Once "a" plays, adding it again changes nothing.
    const auto add = [&] { m->AddSubtitle(u"a", u"g", &item, 1, 4, 4, true, 0); };
    FailEachAllocation(
        {{"factory", [] { DeleteLumetManager(CreateLumetManager()); }},
         {"add another", [&] { m->AddSubtitle(u"b", u"g", nullptr, 0, 0, 0, false, 0); }},
         {"remove", [&] { add(), m->RemoveSubtitle(u"a"); }},
         {"trim", [&] { add(), m->TrimGroup(u"g", 0); }},
         {"playing", [&] { add(), m->GetPlayingInGroup(u"g", entries, &count); }},
         {"hit test", [&] { add(), m->HitTestGroup(u"g", 5, 5, id, &rect); }},
         {"rect",
          [&] { add(), m->GetSubtitleRect(u"a", &rect), m->GetSubtitlePosition(u"a", &point); }},
         {"move", [&] { add(), m->MoveSubtitle(u"a", 8, 8); }},
         {"text", [&] { add(), m->UpdateSubtitleText(u"a", m_text.get()); }},
         {"plate", [&] { add(), m->UpdateSubtitleBackground(u"a", &plate); }},
         {"draw", [&] { add(), m->DrawToBuffer(m_frame.data(), 64, 48, 1.5f); }},
         {"target", [&] { add(), m->DrawToTarget(64, 48, 1.f), m->ReleaseGpuResources(); }}},
        [&] { return add(), m->GetSubtitleRect(u"a", &rect); });
    DeleteLumetManager(m);
}

TEST_F(Boundary, BannerManager) {
    IWeirdSubtitleManager* m = CreateWeirdSubtitleManager();
    const std::u16string image = Path("a.png");
    const POINT at{0, 0};
    const RECT all{0, 0, 64, 48};
    int width = 0;
    int height = 0;
    m->SetOmbrelText(u"文字", 12);
    m->LoadOmbrelImages(image.c_str(), image.c_str());
    FailEachAllocation(
        {{"factory", [] { DeleteWeirdSubtitleManager(CreateWeirdSubtitleManager()); }},
         {"tavrin", [&] { m->SetTavrinTexts(u"a", u"b", u"c", u"d", u"e", u"f"); }},
         {"tavrin images", [&] { m->LoadTavrinImages(image.c_str(), image.c_str()); }},
         {"compose tavrin", [&] { m->ComposeTavrin(m_frame.data(), 64, 48, &at); }},
         {"quellin", [&] { m->SetQuellinTexts(u"a", u"b", 0); }},
         {"quellin plate", [&] { m->LoadQuellinPlate(image.c_str()); }},
         {"compose quellin", [&] { m->ComposeQuellin(m_frame.data(), 64, 48, &at); }},
         {"ombrel", [&] { m->SetOmbrelText(u"文字", 12); }},
         {"ombrel images", [&] { m->LoadOmbrelImages(image.c_str(), image.c_str()); }},
         {"compose ombrel", [&] { m->ComposeOmbrel(m_frame.data(), 64, 48, &all, 1.5f); }},
         {"ombrel texture", [&] { m->DrawOmbrelToTexture(m_texture, &width, &height, m_pbo); }}},
        [&] {
            height = 0;
            m->DrawOmbrelToTexture(m_texture, &width, &height, m_pbo);
            return height > 0;
        });
    DeleteWeirdSubtitleManager(m);
}

TEST_F(Boundary, SceneManagerAndPlayer) {
    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    IFlashPlayer* player = CreateFlashPlayer();
    const std::u16string movie = Path("m");
    uint32_t width = 0;
    uint32_t height = 0;
    const RECT all{0, 0, 64, 48};
    const POINT at{0, 0};
    FailEachAllocation(
        {{"factories", [] { DeleteVirtualSceneManager(CreateVirtualSceneManager()); }},
         {"scene", [&] { scene->OpenScene(movie.c_str(), 0), scene->RenderScene(0, 0); }},
         {"scene state",
          [&] { scene->IsScenePlaying(), scene->GetSceneTexture(), scene->StopScene(); }},
         {"player factory", [] { DeleteFlashPlayer(CreateFlashPlayer()); }},
         {"open", [&] { player->Open(movie.c_str(), 0, true); }},
         {"play",
          [&] {
              player->Play(), player->Pause(), player->Stop(), player->SetEventHandler(nullptr);
          }},
         {"state",
          [&] {
              player->IsReady(), player->IsLoading(), player->IsPlaying(), player->GetFrameRate();
          }},
         {"render",
          [&] {
              player->GetSize(&width, &height),
                  player->RenderToTexture(m_texture, &width, &height, m_pbo);
          }},
         {"frame", [&] { player->RenderToFrame(m_frame.data(), 64, 48, &all, &at, 1.5f); }}},
        [&] { return player->Open(movie.c_str(), 0, true), player->GetSize(&width, &height); });
    DeleteFlashPlayer(player);
    DeleteVirtualSceneManager(scene);
}

}  // namespace
}  // namespace lumets

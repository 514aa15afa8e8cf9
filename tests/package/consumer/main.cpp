// Creates and destroys each manager through the installed headers and library.
#include <lumets/lumets.h>

#include <cstdio>

int main() {
    lumets::SetTimeMode(lumets::TimeMode::Real);
    ILumetManager* subtitles = CreateLumetManager();
    IWeirdSubtitleManager* banners = CreateWeirdSubtitleManager();
    IVirtualSceneManager* scene = CreateVirtualSceneManager();
    const bool ok = subtitles != nullptr && banners != nullptr && scene != nullptr &&
                    scene->GetSceneTexture() == 0;
    DeleteVirtualSceneManager(scene);
    DeleteWeirdSubtitleManager(banners);
    DeleteLumetManager(subtitles);
    std::puts(ok ? "consumer ok" : "consumer failed");
    return ok ? 0 : 1;
}

// A host in twenty lines: one subtitle drawn into a 24-bit frame.
#include <lumets/lumets.h>

#include <cstring>
#include <memory>
#include <vector>

int main() {
    lumets::SetTimeMode(lumets::TimeMode::Virtual);  // frames on our clock
    ILumetManager* manager = CreateLumetManager();
    auto text = std::make_unique<TextPart>();  // 128 KiB: not on the stack
    std::memset(static_cast<void*>(text.get()), 0, sizeof(TextPart));
    std::memcpy(text->text, u"Hello, 字幕!", sizeof(u"Hello, 字幕!"));
    text->style = TextStyle();
    text->style.fontSize = 32;
    text->style.fillColor1 = text->style.fillColor2 = 0xFFFFFF;
    text->rcClip = RECT{0, 0, 640, 60};
    BackgroundPart plate{0x204080, 70, 0, {}};
    ItemDescription item{nullptr, text.get(), &plate, 0, {}};
    manager->AddSubtitle(u"hello", u"demo", &item, 1, 40, 300, false, 0);
    lumets::AdvanceBy(40);                                    // one frame later
    std::vector<uint8_t> frame((640 * 3 + 3) / 4 * 4 * 360);  // B, G, R, bottom-up
    manager->DrawToBuffer(frame.data(), 640, 360, 1.0f);
    DeleteLumetManager(manager);
    lumets::SetTimeMode(lumets::TimeMode::Real);
    return frame[(360 - 320) * 1920 + 200 * 3 + 2] != 0 ? 0 : 1;  // the plate is there
}

// Fuzz target: a host driving the subtitle manager in virtual time. The bytes
// are a program of manager calls; each takes what it needs from the bytes
// that follow (ids and groups from a small set, item records with text,
// style and plate, positions, scales, time to let pass). The frame must stay
// written only inside, and every thread must end with the manager.
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "lumets/time_source.h"
#include "lumets_common/pixel_ops.h"
#include "manager/lumet_manager.h"

namespace {

class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}
    bool More() const { return m_at < m_size; }
    uint8_t Byte() { return m_at < m_size ? m_data[m_at++] : 0; }
    int32_t Int() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) {
            v = v << 8 | Byte();
        }
        return static_cast<int32_t>(v);
    }
    float Float() {
        const int32_t bits = Int();
        float f;
        std::memcpy(&f, &bits, sizeof f);
        return f;
    }
    std::u16string Name(const char16_t* prefix) {
        return prefix + std::u16string(1, static_cast<char16_t>(u'a' + Byte() % 6));
    }

  private:
    const uint8_t* m_data;
    size_t m_size;
    size_t m_at = 0;
};

struct Items {
    std::vector<std::unique_ptr<TextPart>> texts;
    std::vector<BackgroundPart> plates;
    std::vector<ItemDescription> items;
};

Items MakeItems(Reader& in) {
    Items made;
    const size_t count = in.Byte() % 4;
    made.plates.resize(count);
    for (size_t i = 0; i < count; ++i) {
        ItemDescription item{};
        item.nPlayCount = static_cast<int8_t>(in.Byte());
        const uint8_t parts = in.Byte();
        if (parts & 1) {
            auto text = std::make_unique<TextPart>();
            std::memset(static_cast<void*>(text.get()), 0, sizeof(TextPart));
            uint8_t* style = reinterpret_cast<uint8_t*>(&text->style);
            for (size_t k = 0; k < sizeof(TextStyle); ++k) {
                style[k] = in.Byte();
            }
            text->style.fontSize = text->style.fontSize % 200;  // keep runs short
            const size_t units = in.Byte() % 40;
            for (size_t k = 0; k < units; ++k) {
                text->text[k] = static_cast<char16_t>(in.Byte() << 8 | in.Byte());
            }
            text->rcClip = RECT{in.Int(), in.Int(), in.Int(), in.Int()};
            text->x = in.Int();
            text->y = in.Int();
            text->nDirection = in.Byte() % 7;
            text->nSpeed = static_cast<uint32_t>(in.Int());
            text->bWrap = in.Byte();
            item.pText = text.get();
            made.texts.push_back(std::move(text));
        }
        if (parts & 2) {
            made.plates[i] =
                BackgroundPart{static_cast<uint32_t>(in.Int()), in.Byte(), in.Byte(), {}};
            item.pBackground = &made.plates[i];
        }
        made.items.push_back(item);
    }
    return made;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool virtualTime = [] {
        lumets::SetTimeMode(lumets::TimeMode::Virtual);
        return true;
    }();
    (void)virtualTime;
    Reader in(data, size);
    auto manager = std::make_unique<lumets::CLumetManager>();
    std::vector<uint8_t> frame(lumets::RowStride(96, 24) * 64 + 64, 0);
    std::vector<SubtitleRectEntry> entries(8);
    for (int op = 0; op < 64 && in.More(); ++op) {
        const std::u16string id = in.Name(u"id");
        const std::u16string group = in.Name(u"G");
        RECT rect{};
        POINT position{};
        uint32_t count = 0;
        switch (in.Byte() % 11) {
            case 0: {
                Items made = MakeItems(in);
                manager->AddSubtitle(id.c_str(), group.c_str(), made.items.data(),
                                     static_cast<uint32_t>(made.items.size()), in.Int() % 500,
                                     in.Int() % 500, in.Byte() & 1, in.Int() % 1000);
                break;
            }
            case 1:
                manager->RemoveSubtitle(id.c_str());
                break;
            case 2:
                manager->TrimGroup(group.c_str(), in.Byte() % 4);
                break;
            case 3:
                manager->GetPlayingInGroup(group.c_str(), entries.data(), &count);
                break;
            case 4:
                manager->HitTestGroup(group.c_str(), in.Int(), in.Int(), entries[0].id, &rect);
                break;
            case 5:
                manager->GetSubtitleRect(id.c_str(), &rect);
                manager->GetSubtitlePosition(id.c_str(), &position);
                break;
            case 6:
                manager->MoveSubtitle(id.c_str(), in.Int(), in.Int());
                break;
            case 7: {
                Items made = MakeItems(in);
                if (!made.texts.empty()) {
                    manager->UpdateSubtitleText(id.c_str(), made.texts[0].get());
                }
                if (!made.plates.empty()) {
                    manager->UpdateSubtitleBackground(id.c_str(), &made.plates[0]);
                }
                break;
            }
            case 8:
                manager->DrawToBuffer(frame.data(), 96, 64, in.Float());
                break;
            case 9:
                lumets::AdvanceBy(in.Byte() * 4);
                break;
            default:
                manager->RemoveAllSubtitles();
                break;
        }
    }
    manager.reset();
    // The bytes after the frame are never written.
    for (size_t i = frame.size() - 64; i < frame.size(); ++i) {
        if (frame[i] != 0) {
            std::abort();
        }
    }
    return 0;
}

#include "image/resources.h"

#include "lumets_platform/utf16.h"

namespace lumets {
namespace {

// data/mask.png, kept in step by data/make_mask.py (a test compares them).
constexpr uint8_t kMaskPng[] = {
#include "image/mask_png.inc"
};

struct ResourceEntry {
    const char16_t* module;
    int32_t id;
    const char16_t* type;
    std::span<const uint8_t> bytes;
};

// On Windows this is the module's resource section. Here the library is
// liblumets.so, but callers still name it by the file name they have always
// used.
constexpr ResourceEntry kResources[] = {
    {u"Lumets.dll", kMaskResourceId, u"PNG", kMaskPng},
};

}  // namespace

std::span<const uint8_t> FindModuleResource(const char16_t* moduleName, int32_t id,
                                            const char16_t* type) {
    if (moduleName == nullptr || type == nullptr) {
        return {};
    }
    for (const ResourceEntry& entry : kResources) {
        if (entry.id == id && platform::U16CompareNoCase(entry.module, moduleName) == 0 &&
            platform::U16CompareNoCase(entry.type, type) == 0) {
            return entry.bytes;
        }
    }
    return {};
}

}  // namespace lumets

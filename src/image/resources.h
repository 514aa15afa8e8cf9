// The library's own resources: data compiled into liblumets and looked up the
// way a Windows module's resources are, by module file name, numeric
// identifier and type name.
#pragma once

#include <cstdint>
#include <span>

namespace lumets {

// Identifier of the subtitle plate's corner mask (a 40 x 36 RGBA PNG) among
// the "PNG" resources of "Lumets.dll".
inline constexpr int32_t kMaskResourceId = 101;

// The bytes of resource (id, type) of the named module, or an empty span when
// there is no such module or resource. Module and type names compare without
// regard to ASCII case, as Windows compares them; null names find nothing.
// The bytes live as long as the library.
std::span<const uint8_t> FindModuleResource(const char16_t* moduleName, int32_t id,
                                            const char16_t* type);

}  // namespace lumets

// How deep the calling thread is inside the library's own calls into third
// party libraries whose complaints about bad input must not reach the host's
// standard error. One counter per thread, shared by every library of the
// project (this layer is loaded once), so that any of them can tell its own
// calls from the host's.
#pragma once

#include "lumets/export.h"

namespace lumets::platform {

LUMETS_PLATFORM_API int& QuietDepth();

}  // namespace lumets::platform

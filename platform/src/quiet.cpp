#include "lumets_platform/quiet.h"

namespace lumets::platform {

int& QuietDepth() {
    thread_local int depth = 0;
    return depth;
}

}  // namespace lumets::platform

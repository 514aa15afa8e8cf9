// Everything a host needs: the three managers, their records and the time source.
#pragma once

#include "lumets/lumet_manager.h"
#include "lumets/records.h"
#include "lumets/text_style.h"
#include "lumets/time_source.h"
#include "lumets/virtual_scene_manager.h"
#include "lumets/weird_subtitle_manager.h"
#include "lumets/win_types.h"

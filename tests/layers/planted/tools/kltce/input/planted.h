// Planted: the bottom layer reaching up to the replay.
#pragma once

#include "tools/kltce/input/stream_line.h"
#include "tools/kltce/replay/replay.h"

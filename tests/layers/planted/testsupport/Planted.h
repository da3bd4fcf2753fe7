// Planted: test support reaching into the tool.
#pragma once

#include "tools/kltce/input/stream_line.h"

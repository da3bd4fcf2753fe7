// Planted: an analysis file that keeps the order (analysis may include input and replay).
#include "tools/kltce/analysis/analysis.h"
#include "tools/kltce/input/profile.h"
#include "tools/kltce/replay/explain.h"

// Planted: a header left beside the folders.
#include "tools/kltce/json_text.h"

// Planted: a file beside the folders reaching into one.
#include "tools/kltce/input/json_text.h"

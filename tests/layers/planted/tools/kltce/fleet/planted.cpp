// Planted: the fleet reaching up to the command line.
#include "tools/kltce/fleet/fleet.h"
  #  include <tools/kltce/cli/fleet_options.h>

/* The name until 0.1. It goes with the release after. */
#include "vask/ops.h"

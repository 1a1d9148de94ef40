/* The public header as a C compiler sees it: it needs no other and compiles as C11. */
#include "vask/ops.h"

#include "statistics/numeric_runtime.h"

#include <i_malloc.h>
#include <mkl_service.h>

namespace vask {

void use_kernel_memory_in_numeric_runtime() {
    i_malloc = GDKmalloc;
    i_calloc = GDKcalloc;
    i_realloc = GDKrealloc;
    i_free = GDKfree;
}

void drop_numeric_buffers_if(stat_flag flag) {
    if (flag != 0)
        mkl_thread_free_buffers();
}

} // namespace vask

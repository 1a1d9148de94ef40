// The settings that operators read; docs/reference-kernel.md gives the reasons
// of their defaults.
#include "vask/refkernel/contract.h"

#include <algorithm>
#include <thread>

int32_t GDKnr_threads = static_cast<int32_t>(std::max(1U, std::thread::hardware_concurrency()));
int32_t GDKmin_part_size = 16384;
int32_t GDKpart_size_div = 4;
uint32_t GDKdebug = 0;
uint32_t GDKgroup_algo_select_vask_size = 65536;
uint32_t GDKgroup_algo_select_sample_size = 8192;
uint32_t GDKgroup_algo_select_uniqueness_thresh = 8169;

// The fixed-width types of the kernel itself; user atoms may compare as they like.
uint64_t GDKplain_nils = 1U << TYPE_bit | 1U << TYPE_byte | 1U << TYPE_bte | 1U << TYPE_sht |
                         1U << TYPE_int | 1U << TYPE_wrd | 1U << TYPE_flt | 1U << TYPE_dbl |
                         1U << TYPE_lng;

// The kernel's settings for the length of a test case.
#pragma once

#include "vask/kernel/bat.h"

namespace support {

//! Sets the settings that decide the partitions and puts all of them back at the end.
struct kernel_settings {
    explicit kernel_settings(std::int32_t threads, std::int32_t min_part = 1,
                             std::int32_t div = 1000) {
        GDKnr_threads = threads;
        GDKmin_part_size = min_part;
        GDKpart_size_div = div;
    }
    kernel_settings(const kernel_settings &) = delete;
    kernel_settings &operator=(const kernel_settings &) = delete;
    ~kernel_settings() {
        GDKnr_threads = threads_;
        GDKmin_part_size = min_part_;
        GDKpart_size_div = div_;
        GDKdebug = debug_;
    }

private:
    std::int32_t threads_ = GDKnr_threads;
    std::int32_t min_part_ = GDKmin_part_size;
    std::int32_t div_ = GDKpart_size_div;
    std::uint32_t debug_ = GDKdebug;
};

} // namespace support

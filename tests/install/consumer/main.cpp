// A program outside this project: it groups, sums by group, and reads the result.
#include "vask/embed.h"
#include "vask/ops.h"

#include <cstdio>
#include <string_view>
#include <vector>

#if VASK_VERSION < VASK_MAKE_VERSION(0, 1, 0)
#error "the version macros do not compare"
#endif

using namespace refkernel;

int main() {
    const bat city = make_text_column(std::vector<std::string_view>{"Oslo", "Rome", "Oslo"});
    const bat price = make_column(std::vector<double>{3.5, 2, 4});
    int32_t extents_id, map_id, sums_id;
    if (VASKgroup(&extents_id, &map_id, city.slot()) != nullptr)
        return 1;
    const bat extents = bat::adopt(extents_id);
    const bat map = bat::adopt(map_id);
    if (vask_grp_sum(&sums_id, price.slot(), map.slot(), extents.slot()) != nullptr)
        return 1;
    const bat sums = bat::adopt(sums_id);
    std::printf("%s %g %g\n", VASK_VERSION_STRING, sums.values<double>()[0],
                sums.values<double>()[1]);
}

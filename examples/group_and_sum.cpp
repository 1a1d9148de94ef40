// Sums of one column by the values of another: what a query plan does, call by call.
#include "vask/embed.h"
#include "vask/ops.h"

#include <cstdio>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace {

// An operator answers with null or with an exception string, which is the caller's to give back.
void check(char *exception) {
    if (exception != nullptr)
        throw std::runtime_error(refkernel::take_exception(exception).text);
}

} // namespace

int main() {
    using refkernel::bat;
    const bat city = refkernel::make_text_column(
        std::vector<std::string_view>{"Oslo", "Rome", "Oslo", "Lima", "Rome"});
    const bat price = refkernel::make_column(std::vector<double>{3.5, 2, 4, 1, 2.25});

    // The extents have a row per group, the map a row per row: the id of the row's group.
    std::int32_t extents_id;
    std::int32_t map_id;
    check(VASKgroup(&extents_id, &map_id, city.slot()));
    const bat extents = bat::adopt(extents_id); // the reference is ours now
    const bat map = bat::adopt(map_id);

    std::int32_t sums_id;
    check(vask_grp_sum(&sums_id, price.slot(), map.slot(), extents.slot()));
    const bat sums = bat::adopt(sums_id);

    // A group's id is the head oid of its first row, which for a column from row 0 on is its place.
    for (BUN group = 0; group < extents.count(); ++group)
        std::printf("%-5s %g\n", std::string(city.text(extents.head_oid(group))).c_str(),
                    sums.values<double>()[group]);
}

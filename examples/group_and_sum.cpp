// Sums of one column by the values of another.
#include "vask/embed.h"
#include "vask/ops.h"

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

int main() {
    using refkernel::bat;
    const bat city = refkernel::make_text_column(
        std::vector<std::string_view>{"Oslo", "Rome", "Oslo", "Lima", "Rome"});
    const bat price = refkernel::make_column(std::vector<double>{3.5, 2, 4, 1, 2.25});

    // The extents have a row per group, the map a row per row: the id of the row's group.
    const auto [map, extents] = refkernel::group_by(city);
    const bat sums = refkernel::call<bat>(vask_grp_sum, price, map, extents);

    // A group's id is the head oid of its first row, which for a column from row 0 on is its place.
    for (BUN group = 0; group < extents.count(); ++group)
        std::printf("%-5s %g\n", std::string(city.text(extents.head_oid(group))).c_str(),
                    sums.values<double>()[group]);
}

// What the kernel sees of a call of each family, memory aside: the same operations in the same
// order. Plans and kernels rely on it.
#include "library/any_operator.h"
#include "statistics/plain_statistics.h"
#include "support/kernel_calls.h"
#include "support/kernel_settings.h"
#include "support/other_host.h"
#include "vask/ops.h"
#include "vask/refkernel/instrumentation.h"

#include <array>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using namespace support;
using refkernel::bat;
using refkernel::instrumentation::watch;

TEST(KernelCalls, AreTheAgreedOnesInOrder) {
    std::map<char, bat> named;
    named['x'] = nonil_column(std::vector<double>{1, 2, 3});
    named['y'] = nonil_column(std::vector<double>{1, 2, 4});
    named['i'] = column_of(std::vector<std::int32_t>{1, 2, 3});
    named['g'] = column_of(std::vector<oid>{5, 9, 5});
    named['e'] = column_of(std::vector<wrd>{1, 1},
                           {.stored_head = true, .head_oids = std::vector<oid>{9, 5}});
    named['d'] = refkernel::make_void_column(10); // holds the groups, too
    named['k'] = parameter<std::int16_t>(2);
    named['j'] = column_of(std::vector<std::int32_t>{4, 5, 6});
    named['l'] = column_of(std::vector<oid>{1, 2}, {.stored_head = true, .seqbase = 7});
    // Of one task; without the seal that other results get.
    const char *const grouped_pair_calls =
        "BBPincref(x, 0) BBPincref(y, 0) BBPincref(g, 0) BBPincref(d, 0) BATnew(0, 11, 10) "
        "BATsetcount(new, 10) VIEWcreate(d, new) BBPreleaseref(new) ALIGNsetH(result, d) "
        "BATaccess(x, 2, 0, 1) BATaccess(y, 2, 0, 1) BATaccess(g, 2, 0, 1) BATaccess(d, 2, 0, 1) "
        "BATaccess(x, 2, 0, -1) BATaccess(y, 2, 0, -1) "
        "BATaccess(g, 2, 0, -1) BATaccess(d, 2, 0, -1) BBPkeepref(result) "
        "BBPreleaseref(x) BBPreleaseref(y) BBPreleaseref(g) BBPreleaseref(d)";
    const char *const pair_calls =
        "BBPincref(x, 0) BBPincref(y, 0) BATaccess(x, 2, 0, 1) BATaccess(y, 2, 0, 1) "
        "BATaccess(x, 2, 0, -1) BATaccess(y, 2, 0, -1) BBPreleaseref(x) BBPreleaseref(y)";

    struct {
        std::vector<any_operator> operators;
        std::string inputs;
        std::string expected;
        std::int32_t threads = 3;
    } const cases[] = {
        {{vask_skews},
         "x",
         "BBPincref(x, 0) BATaccess(x, 2, 0, 1) BATaccess(x, 2, 0, -1) BBPreleaseref(x)"},
        {{vask_largest},
         "xk",
         "BBPincref(x, 0) BBPreleaseref(x) "                                          // the type
         "BBPincref(k, 0) doALGfetch(k, 0) BBPreleaseref(k) VALconvert(12) VALget() " // the rank
         "BBPincref(x, 0) BATaccess(x, 2, 0, 1) BATaccess(x, 2, 0, -1) BBPreleaseref(x)"},
        {{vask_covars, vask_covarp, vask_correl}, "xy", pair_calls},
        {{vask_slope, vask_intercept}, "yx", pair_calls}, // the line's x is first
        {{vask_grp_covars, vask_grp_covarp, vask_grp_correl}, "xygd", grouped_pair_calls, 1},
        {{vask_grp_slope, vask_grp_intercept}, "yxgd", grouped_pair_calls, 1},
        {{vask_grp_sum},
         "ige",
         "BBPincref(i, 0) BBPincref(g, 0) BBPincref(e, 0) BATnew(7, 12, 2) BATsetcount(new, 2) "
         "VIEWcreate(e, new) BBPreleaseref(new) ALIGNsetH(result, e) "
         "BATaccess(i, 2, 0, 1) BATaccess(g, 2, 0, 1) BATaccess(e, 2, 0, 1) BAThash(e, 0) "
         "BATaccess(i, 2, 0, -1) BATaccess(g, 2, 0, -1) BATaccess(e, 2, 0, -1) "
         "BBPkeepref(result) BBPreleaseref(i) BBPreleaseref(g) BBPreleaseref(e)",
         1},
        {{vask_grp_median},
         "xgd",
         "BBPincref(x, 0) BBPincref(d, 0) BBPincref(g, 0) ALIGNsynced(g, x) BATnew(0, 11, 10) "
         "BATsetcount(new, 10) VIEWcreate(d, new) BBPreleaseref(new) ALIGNsetH(result, d) "
         "BATaccess(result, 2, 0, 1) BATaccess(result, 2, 0, -1) BATsetaccess(result, 1) "
         "BBPkeepref(result) BBPreleaseref(x) BBPreleaseref(d) BBPreleaseref(g)"},
        {{vaskops_are_bat_indexes_contained},
         "lg",
         "BBPincref(l, 0) BBPincref(g, 0) BATnew(0, 1, 2) BATseqbase(new, 7) "
         "BATsetcount(new, 2) BATkey(-new, 0) BATsetaccess(new, 1) VIEWcreate(l, new) "
         "BBPreleaseref(new) BBPkeepref(result) BBPreleaseref(l) BBPreleaseref(g)"},
        {{vask_coSNNandUnion},
         "ij",
         "BBPincref(i, 0) BBPincref(j, 0) BATaccess(i, 2, 0, 1) BATaccess(j, 2, 0, 1) "
         "BATaccess(i, 2, 0, -1) BATaccess(j, 2, 0, -1) "
         "BATnew(0, 6, 6) BATsetcount(result, 6) ALIGNsetH(result, i) "
         "BATmaterializeh(result) BATaccess(i, 3, 0, 1) BATaccess(j, 3, 0, 1) "
         "BATaccess(i, 3, 0, -1) BATaccess(j, 3, 0, -1) "
         "BATsetaccess(result, 1) BBPkeepref(result) BBPreleaseref(i) BBPreleaseref(j)"},
    };
    for (const auto &c : cases)
        for (const any_operator &call : c.operators) {
            const kernel_settings settings(c.threads);
            columns inputs;
            std::map<std::int32_t, std::string> roles;
            for (const char letter : c.inputs) {
                inputs.push_back(&named.at(letter));
                roles[inputs.back()->id()] = letter;
            }
            watch kernel;
            kernel.record(true);
            lng slot = 0;
            EXPECT_EQ(refkernel::take_exception(call(&slot, inputs)), success);
            kernel.record(false);
            const auto id = static_cast<std::int32_t>(slot);
            if (call.gives_column())
                roles[id] = "result";
            EXPECT_EQ(calls_by_role(kernel, roles), c.expected);
            EXPECT_TRUE(kernel.unpaired_accesses().empty());
            EXPECT_EQ(kernel.bytes_outstanding(), 0U);
            bat::adopt(call.gives_column() ? id : int_nil);
        }
}

//! The marks that a tail has when a view takes it over: nonil, nil, sorted.
using tail_marks = std::array<int, 3>;

// Other than those of one column, which are marked when they are a view already.
TEST(KernelCalls, GroupedStatisticsOfTwoColumnsBringTheirMarksIntoTheView) {
    const bat x = nonil_column(std::vector<double>{1, 2, 3});
    const bat g = column_of(std::vector<oid>{0, 1, 0});
    const bat counted = refkernel::make_void_column(3);
    const bat e = refkernel::make_void_column(3);
    for (const any_operator &call : {any_operator(vask_grp_covars), any_operator(vask_grp_covarp),
                                     any_operator(vask_grp_correl), any_operator(vask_grp_slope),
                                     any_operator(vask_grp_intercept)})
        for (const bat *map : {&g, &counted}) {
            std::vector<tail_marks> seen;
            const view_look_out look_out([&seen](const BAT &, const BAT &made) {
                seen.push_back({made.tail->nonil, made.tail->nil, made.tail->sorted});
            });
            std::int32_t id = 0;
            EXPECT_EQ(refkernel::take_exception(call(&id, {&x, &x, map, &e})), success);
            bat::adopt(id).reset();
            EXPECT_EQ(seen, (std::vector<tail_marks>{{1, 0, 0}}));
        }
}

} // namespace

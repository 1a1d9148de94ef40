// A text column whose heap is larger than 32 bits count bytes. Run by scripts/size-edges.
#include "vask/embed.h"
#include "vask/ops.h"

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

void require(bool holds, const char *what) {
    if (holds)
        return;
    std::fprintf(stderr, "FAILED: %s\n", what);
    std::exit(1);
}

// Texts of a length, each its own, but the last one is that of the first row.
std::string text_of(BUN row, std::size_t length) {
    std::string text = std::to_string(row);
    text.resize(length, static_cast<char>('a' + row % 26));
    return text;
}

} // namespace

int main() {
    constexpr std::size_t length = 4000;
    constexpr BUN rows = 1'100'000; // 4.4e9 bytes
    refkernel::text_builder builder;
    for (BUN row = 0; row + 1 < rows; ++row)
        builder.append(text_of(row, length));
    builder.append(text_of(0, length));
    const refkernel::bat texts = builder.finish();
    for (const BUN row : {BUN{0}, BUN{1}, rows / 2, rows - 2})
        require(texts.text(row) == text_of(row, length), "a text");
    require(texts.text(rows - 1) == text_of(0, length), "the last text");
    std::int64_t counted = 0;
    require(vask_count(&counted, texts.slot()) == nullptr && counted == rows, "count");
    std::int32_t ids[2] = {0, 0};
    require(VASKgroup(&ids[0], &ids[1], texts.slot()) == nullptr, "grouping");
    const refkernel::bat extents = refkernel::bat::adopt(ids[0]);
    const refkernel::bat map = refkernel::bat::adopt(ids[1]);
    require(extents.count() == rows - 1, "groups");
    require(map.values<oid>()[rows - 1] == map.values<oid>()[0], "the last row's group");
    require(map.values<oid>()[rows - 2] != map.values<oid>()[0], "the row before");
    return 0;
}

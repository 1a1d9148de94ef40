#include "rows/group_by_buckets.h"

#include "rows/bucket_grouping.h"

namespace vask {

template <class Kind>
grouping_outcome group_by_buckets(const grouping_rows &rows, const Kind &kind,
                                  const key_loader<typename Kind::key_type> &load,
                                  const group_sink &sink) {
    return bucket_grouping<Kind>(rows, kind, load).run(sink);
}

#define VASK_GROUP_BY_BUCKETS(Kind)                                                                \
    template grouping_outcome group_by_buckets<Kind>(const grouping_rows &, const Kind &,          \
                                                     const key_loader<Kind::key_type> &,           \
                                                     const group_sink &)
VASK_GROUP_BY_BUCKETS(bit_keys<std::uint32_t>);
VASK_GROUP_BY_BUCKETS(bit_keys<std::uint64_t>);
VASK_GROUP_BY_BUCKETS(bit_keys<wide_key>);
VASK_GROUP_BY_BUCKETS(text_content_keys<std::uint64_t>);
VASK_GROUP_BY_BUCKETS(text_content_keys<wide_key>);
#undef VASK_GROUP_BY_BUCKETS

} // namespace vask

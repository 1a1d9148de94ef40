// Inputs of grouped operators in all their shapes, and which rows each group gets from them: the
// slow, plain half of every test of a grouped operator.
#pragma once

#include "vask/embed.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <numeric>
#include <ostream>
#include <random>
#include <vector>

namespace support {

enum class extents_head { void_dense, stored_dense, ascending, shuffled, far_apart, repeated };
enum class group_order { mixed, runs, one };

struct grouped_shape {
    std::uint32_t seed = 1;
    BUN rows = 100;
    BUN groups = 10;
    BUN first = 0; // position of the first row of values and map
    extents_head head = extents_head::ascending;
    group_order order = group_order::mixed;
    int unknown_per_mille = 0; // rows whose group the extents do not hold

    friend std::ostream &operator<<(std::ostream &out, const grouped_shape &s) {
        return out << "seed " << s.seed << ", " << s.rows << " rows from " << s.first << ", "
                   << s.groups << " groups, head " << static_cast<int>(s.head) << ", order "
                   << static_cast<int>(s.order) << ", unknown " << s.unknown_per_mille;
    }
};

//! Partitions that `rows` rows get when one row is enough for a partition.
inline BUN plain_partitions(BUN rows, std::int32_t threads) {
    return std::min({rows > 1 ? rows : 1, static_cast<BUN>(threads), BUN{256}});
}

//! The rows of a column that count, by partition.
template <class Counts>
std::vector<std::vector<BUN>> rows_by_partition(BUN rows, BUN partitions, Counts counts) {
    std::vector<std::vector<BUN>> parts(partitions);
    for (BUN row = 0; row < rows; ++row)
        if (counts(row))
            parts[std::min(row / (rows / partitions), partitions - 1)].push_back(row);
    return parts;
}

class grouped_inputs {
public:
    explicit grouped_inputs(const grouped_shape &shape) : shape_(shape), random_(shape.seed) {
        using enum extents_head;
        ids_.resize(shape.groups);
        std::iota(ids_.begin(), ids_.end(), 1000);
        const bool dense = shape.head == void_dense || shape.head == stored_dense;
        if (!dense)
            for (oid &id : ids_) // unique and ascending, with room between them
                id = (id - 1000) * (shape.head == far_apart ? 400'000 : 7) + 3;
        if (shape.head == shuffled)
            std::shuffle(ids_.begin(), ids_.end(), random_);
        if (shape.head == repeated)
            for (std::size_t i = 1; i < ids_.size(); i += 3)
                ids_[i] = ids_[i - 1];

        refkernel::column_options e{
            .type = TYPE_wrd, .stored_head = shape.head != void_dense, .seqbase = 1000};
        if (e.stored_head)
            e.head_oids = ids_;
        e.head.sorted = shape.head != shuffled;
        e.head.dense = dense;
        extents = refkernel::make_column(std::vector<std::int64_t>(shape.groups, 1), e);

        make_group_ids();
        map = refkernel::make_column(std::span<const oid>(gids_), {.first = shape.first});
    }

    refkernel::bat extents;
    refkernel::bat map;

    const std::vector<oid> &ids() const { return ids_; }
    std::mt19937 &random() { return random_; }

    //! For each group, for each partition, the numbers of its rows in order. `counts(row)` says
    //! whether a row has a value at all; one that does but belongs to no group ends its partition.
    template <class Counts>
    std::vector<std::vector<std::vector<BUN>>> rows_by_group(BUN partitions, Counts counts) const {
        std::map<oid, std::size_t> slot;
        for (std::size_t j = ids_.size(); j-- > 0;)
            slot[ids_[j]] = j; // of equal ids the first
        std::vector<std::vector<std::vector<BUN>>> rows(ids_.size(),
                                                        std::vector<std::vector<BUN>>(partitions));
        const BUN size = shape_.rows / partitions;
        for (BUN part = 0; part < partitions; ++part) {
            const BUN end = part + 1 == partitions ? shape_.rows : (part + 1) * size;
            for (BUN row = part * size; row < end; ++row) {
                if (!counts(row))
                    continue;
                const auto found = slot.find(gids_[row]);
                if (found == slot.end())
                    break;
                rows[found->second][part].push_back(row);
            }
        }
        return rows;
    }

private:
    void make_group_ids() {
        const oid unknown[] = {0, 999, 1000 + shape_.groups, 5, oid_nil, 0xffffffff};
        BUN group = 0;
        for (BUN row = 0; row < shape_.rows; ++row) {
            // Runs of any length, also ones that cross the blocks in which rows are handled.
            if (shape_.order == group_order::mixed ||
                (shape_.order == group_order::runs && random_() % 40 == 0))
                group = static_cast<BUN>(random_());
            const bool known = shape_.groups != 0 &&
                               static_cast<int>(random_() % 1000) >= shape_.unknown_per_mille;
            gids_.push_back(known ? ids_[group % shape_.groups]
                                  : unknown[random_() % std::size(unknown)]);
        }
    }

    grouped_shape shape_;
    std::mt19937 random_;
    std::vector<oid> ids_;
    std::vector<oid> gids_;
};

//! Shapes of every kind, row counts on both sides of the sizes at which the row loop changes.
inline std::vector<grouped_shape> grouped_shapes() {
    std::vector<grouped_shape> shapes;
    std::mt19937 random(20240501);
    const BUN rows[] = {0, 1, 2, 15, 16, 17, 63, 64, 65, 100, 1000, 2047, 2048, 2049, 7000};
    const BUN groups[] = {1, 2, 10, 100, 3000};
    for (int i = 0; i < 150; ++i) {
        grouped_shape s;
        s.seed = static_cast<std::uint32_t>(random());
        s.rows = rows[static_cast<std::size_t>(i) % std::size(rows)];
        s.groups = groups[random() % std::size(groups)];
        s.first = random() % 3 == 0 ? 13 : 0;
        s.head = static_cast<extents_head>(i % 6);
        s.order = static_cast<group_order>(random() % 3);
        s.unknown_per_mille = random() % 4 == 0 ? 2 : 0;
        shapes.push_back(s);
    }
    return shapes;
}

} // namespace support

// Operators of any family behind one type, for tables of them.
#pragma once

#include "vask/embed.h"

#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>
#include <vector>

namespace support {

using columns = std::vector<const refkernel::bat *>;

//! An exported function as one that takes a list of inputs.
class any_operator {
public:
    template <class Slot, class... Ids>
    any_operator(char *(*call)(Slot *, Ids...))
        : call_([call](void *slot, const columns &inputs) {
              return [&]<std::size_t... I>(std::index_sequence<I...>) {
                  return call(static_cast<Slot *>(slot), inputs[I]->slot()...);
              }
              (std::index_sequence_for<Ids...>());
          }),
          gives_column_(std::is_same_v<Slot, std::int32_t>) {}

    char *operator()(void *slot, const columns &inputs) const { return call_(slot, inputs); }

    //! Whether the slot takes the number of a column, and not a value.
    bool gives_column() const { return gives_column_; }

private:
    std::function<char *(void *, const columns &)> call_;
    bool gives_column_;
};

} // namespace support

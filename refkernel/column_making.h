// Steps that the makers of fixed-width and of text columns share.
#ifndef REFKERNEL_COLUMN_MAKING_H
#define REFKERNEL_COLUMN_MAKING_H

#include "refkernel/pool.h"
#include "vask/embed.h"

#include <cstddef>
#include <memory>

namespace refkernel {

//! An entry of `count` rows with the head that the options ask for; its tail is void for now.
std::unique_ptr<bat_entry> entry_with_head(std::size_t count, const column_options &options);

//! Memory for `first` filled positions and `count` rows behind them.
std::shared_ptr<memory::block> rows_behind(BUN first, std::size_t count, std::size_t width);

//! Puts elements in memory under the tail, with the marks of the options.
void set_tail(bat_entry &made, int type, std::size_t width, std::shared_ptr<memory::block> memory,
              const column_options &options);

//! Hands the entry to the pool.
bat insert(std::unique_ptr<bat_entry> made);

} // namespace refkernel

#endif

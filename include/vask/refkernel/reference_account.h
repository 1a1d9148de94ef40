// References that are lost with an exception, and how they come back.
#ifndef VASK_REFKERNEL_REFERENCE_ACCOUNT_H
#define VASK_REFKERNEL_REFERENCE_ACCOUNT_H

#include "vask/refkernel/contract.h"

#include <cstdint>
#include <vector>

namespace refkernel {

/*
 * Counts the references on BATs that its thread takes and drops while it lives. An
 * operator that an exception passes, of memory that ran out or of work that was
 * cancelled, loses the references that it holds. Who called it gives them back:
 *
 *     reference_account references;
 *     try {
 *         message = VASKgroup(&extents, &map, &input);
 *     } catch (...) {
 *         references.give_back();
 *         throw;
 *     }
 *
 * Made, used and destroyed on one thread. One within another counts in its place, and
 * adds what it has counted to the other in the end.
 */
class REFKERNEL_API reference_account {
public:
    reference_account() noexcept;
    ~reference_account();
    reference_account(const reference_account &) = delete;
    reference_account &operator=(const reference_account &) = delete;

    //! Drops what was taken and not dropped.
    void give_back() noexcept;

    //! Told by the pool. What there is no memory to count is not given back.
    void count(std::int32_t id, bool logical, std::int32_t change) noexcept;

private:
    struct balance {
        std::int32_t id;
        bool logical;
        std::int32_t held;
    };
    std::vector<balance> balances_;
    reference_account *before_;
};

} // namespace refkernel

#endif

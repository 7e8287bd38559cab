#pragma once

#include <cstdlib>
#include <type_traits>

namespace android::binderd {

// Takes `amount` from an unsigned counter of binderd's own bookkeeping.
// Taking more than it holds is a bug in binderd, never a peer's doing: where
// binderd's tables are checked (tests, fuzzers, the AddressSanitizer build)
// it stops binderd at once; elsewhere the counter stops at zero rather than
// wrapping into a bound that never holds again.
template <typename Counter, typename Amount>
void decrease(Counter& counter, Amount amount) {
    static_assert(std::is_unsigned<Counter>::value, "only unsigned counters wrap");
    const auto taken = static_cast<Counter>(amount);
    if (taken > counter) {
#ifdef TIVRA_CHECK_INVARIANTS
        std::abort();
#endif
        counter = 0;
        return;
    }
    counter -= taken;
}

template <typename Counter>
void decrease(Counter& counter) {
    decrease(counter, 1);
}

}  // namespace android::binderd

#pragma once

// Internal to the kernels: the median rule that the filter and the statistic share.

#include <algorithm>
#include <cstddef>
#include <type_traits>

namespace norvexa {
namespace kernels {

/// The mean of the two middle elements of an even count: their sum halved in the
/// pixel's arithmetic. Types narrower than int are promoted, so their sum is exact;
/// wider integer sums wrap at the type's width; floating sums are times 0.5.
template <class P>
P halfSum(P a, P b)
{
    if constexpr (std::is_floating_point_v<P>) {
        return static_cast<P>((a + b) * 0.5);
    } else if constexpr (sizeof(P) < sizeof(int)) {
        return static_cast<P>((a + b) / 2);
    } else {
        using U = std::make_unsigned_t<P>;
        return static_cast<P>(static_cast<P>(static_cast<U>(a) + static_cast<U>(b)) / 2);
    }
}

/// The element of rank count / 2, and for an even count halfSum of it and the element
/// below, selected with nth_element in place; count > 0.
template <class P>
P selectMedian(P* values, std::size_t count)
{
    const std::size_t k = count / 2;
    std::nth_element(values, values + k, values + count);
    if (count % 2)
        return values[k];
    std::nth_element(values, values + k - 1, values + k);
    return halfSum(values[k - 1], values[k]);
}

} // namespace kernels
} // namespace norvexa

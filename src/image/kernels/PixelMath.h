#pragma once

// Internal to the kernels: the type rules and value conversions of the pixel arithmetic
// and of asType. The rules themselves are documented on DBasicImage.

#include <cmath>
#include <limits>
#include <type_traits>

/// Marks a per-pixel loop to be compiled twice, for AVX2 and for the baseline, with the
/// choice made once when the library loads. GCC only: clang refuses the attribute on
/// templates.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(NORVEXA_NO_CLONES)
#define NORVEXA_HOT_LOOP __attribute__((target_clones("avx2", "default")))
#else
#define NORVEXA_HOT_LOOP
#endif

namespace norvexa {
namespace kernels {

template <class T>
constexpr int digitsOf()
{
    return std::numeric_limits<T>::digits;
}

/// Whether every value of B is a value of A.
template <class A, class B>
constexpr bool holdsAll()
{
    if constexpr (std::is_same_v<A, bool>)
        return std::is_same_v<B, bool>;
    else if constexpr (std::is_same_v<B, bool>)
        return true;
    else if constexpr (std::is_floating_point_v<A>)
        return std::is_floating_point_v<B> ? sizeof(B) <= sizeof(A) : digitsOf<B>() <= digitsOf<A>();
    else if constexpr (std::is_floating_point_v<B>)
        return false;
    else
        return (std::is_signed_v<A> || !std::is_signed_v<B>) && digitsOf<B>() <= digitsOf<A>();
}

namespace detail {
template <class A, class B, class Candidate, class... Rest>
struct FirstHolding {
    using type = std::conditional_t<holdsAll<Candidate, A>() && holdsAll<Candidate, B>(), Candidate,
                                    typename FirstHolding<A, B, Rest...>::type>;
};
template <class A, class B, class Candidate>
struct FirstHolding<A, B, Candidate> {
    using type = Candidate;
};
} // namespace detail

/// The result type of an out-of-place operation of two images: the narrowest pixel type
/// that holds every value of both, the left one on a tie, double when none does.
template <class L, class R>
using ResultType = std::conditional_t<
    holdsAll<L, R>(), L,
    std::conditional_t<holdsAll<R, L>(), R,
                       typename detail::FirstHolding<L, R, short, int, long long, float, double>::type>>;

/// The same for an image and a scalar: a floating image keeps its type with an integer scalar.
template <class L, class T>
using ScalarResultType =
    std::conditional_t<std::is_floating_point_v<L> && !std::is_floating_point_v<T>, L, ResultType<L, T>>;

enum class Op { Add, Sub, Mul, Div };

/// The type in which a pair is computed: double when either side is floating; else one
/// that holds every result of the operation, so that nothing overflows before the store
/// saturates. 64-bit signed integers hold every sum, difference, product and quotient of
/// two types up to 32 bits, except a product of two unsigned ones, which is taken in
/// unsigned 64 bits; with a 64-bit operand, 128-bit integers, whose one possible
/// overflow (a product of two 64-bit values) apply() saturates.
template <Op op, class A, class B>
using ComputeType = std::conditional_t<
    std::is_floating_point_v<A> || std::is_floating_point_v<B>, double,
    std::conditional_t<(sizeof(A) <= 4 && sizeof(B) <= 4),
                       std::conditional_t<op == Op::Mul && std::is_unsigned_v<A> && std::is_unsigned_v<B>,
                                          unsigned long long, long long>,
                       __int128>>;

template <Op op, class C>
inline C apply(C a, C b)
{
    if constexpr (op == Op::Add) {
        return a + b;
    } else if constexpr (op == Op::Sub) {
        return a - b;
    } else if constexpr (op == Op::Mul) {
        if constexpr (std::is_same_v<C, __int128>) {
            C product;
            if (__builtin_mul_overflow(a, b, &product)) {
                const C max = ~(static_cast<unsigned __int128>(1) << 127);
                return ((a < 0) != (b < 0)) ? -max - 1 : max;
            }
            return product;
        } else {
            return a * b;
        }
    } else {
        if constexpr (std::is_floating_point_v<C>)
            return a / b;
        else
            return b == 0 ? C(0) : a / b;
    }
}

/// Floating to integer with truncation, saturation and NaN as 0: the language's
/// conversion where it is defined, and a defined value where it is not. The limits are
/// compared as exact doubles (min is 0 or -2^digits, max + 1 is 2^digits), so that every
/// double inside the range converts exactly and one beyond it gives the integer limit.
template <class T>
inline T truncateToInteger(double v)
{
    using Limits = std::numeric_limits<T>;
    constexpr double above = static_cast<double>(Limits::max() / 2 + 1) * 2.0;
    constexpr double lowest = static_cast<double>(Limits::min());
    return v >= above ? Limits::max() : v <= lowest ? Limits::min() : v == v ? static_cast<T>(v) : T(0);
}

/// Floating to integer, rounded to the nearest with halves away from zero, saturated, NaN
/// as 0. Exact for every double: the fraction v - whole is computed without rounding,
/// where adding 0.5 would round (0.49999999999999994 + 0.5 is 1, and odd values in
/// [2^52, 2^53) move by one). Below 2^52 the whole part fits a long long, which the
/// compiler truncates in registers (std::trunc is a library call without SSE4.1); from
/// 2^52 up every double is an integer already, and NaN and the infinities go straight to
/// the saturation.
template <class T>
inline T roundToInteger(double v)
{
    if (std::fabs(v) < 4503599627370496.0) {
        const long long whole = static_cast<long long>(v);
        const double fraction = v - static_cast<double>(whole);
        const long long rounded = whole + (fraction >= 0.5) - (fraction <= -0.5);
        return truncateToInteger<T>(static_cast<double>(rounded));
    }
    return truncateToInteger<T>(v);
}

/// Stores a computed value into the result type: integers saturate, floating values are
/// rounded half away from zero, NaN is 0, BOOL is non-zero.
template <class Res, class C>
inline Res store(C v)
{
    if constexpr (std::is_same_v<Res, bool>) {
        return v != 0;
    } else if constexpr (std::is_floating_point_v<Res>) {
        return static_cast<Res>(v);
    } else if constexpr (std::is_floating_point_v<C>) {
        return roundToInteger<Res>(v);
    } else if constexpr (std::is_unsigned_v<C>) {
        using Limits = std::numeric_limits<Res>;
        return v > static_cast<C>(Limits::max()) ? Limits::max() : static_cast<Res>(v);
    } else {
        using Limits = std::numeric_limits<Res>;
        // Compare in a type that holds both ranges: long long where it suffices, as
        // that keeps the common loops vectorisable.
        using Wide = std::conditional_t<std::is_same_v<C, long long> && digitsOf<Res>() <= 63,
                                        long long, __int128>;
        const Wide w = static_cast<Wide>(v);
        if (w < static_cast<Wide>(Limits::min()))
            return Limits::min();
        if (w > static_cast<Wide>(Limits::max()))
            return Limits::max();
        return static_cast<Res>(v);
    }
}

/// The ordinary numeric conversion, defined everywhere (see DBasicImage).
template <class To, class From>
inline To convert(From v)
{
    if constexpr (std::is_same_v<To, bool>)
        return v != 0;
    else if constexpr (std::is_floating_point_v<From> && !std::is_floating_point_v<To>)
        return truncateToInteger<To>(static_cast<double>(v));
    else
        return static_cast<To>(v);
}

} // namespace kernels
} // namespace norvexa

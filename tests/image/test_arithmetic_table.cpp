// The arithmetic and conversion rules of DBasicImage, checked over all 144 pairs of pixel
// types with the values at the edges of each type, against a plain reference of the
// rule as the class comment states it. Runs under the sanitizers as well.

#include "DImage.h"
#include "foundation/image/DDataTypes.h"
#include "image/kernels/PixelMath.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <limits>
#include <sstream>
#include <string>
#include <vector>

using namespace norvexa;
using namespace norvexa::imglib;
using namespace norvexa::datatypes;

namespace {

using Int = __int128;

template <class F, class... Ts>
void forEachType(TypeList<Ts...>, F&& f)
{
    (f(TypeTag<Ts>{}), ...);
}

template <class T>
constexpr bool isFloat = std::is_floating_point_v<T>;

template <class T>
std::string name()
{
    return typeStr(PixelTraits<T>::type) + std::to_string(PixelTraits<T>::bits);
}

template <class T>
std::string text(T v)
{
    std::ostringstream out;
    if constexpr (isFloat<T>)
        out << std::setprecision(21) << v;
    else
        out << static_cast<long double>(v);
    return out.str();
}

/// The edge values of a type: its limits and their neighbours, values whose sums and
/// products land just inside or just outside the narrower types, 2^53 +- 1, halves, the
/// largest doubles below 2^63 and 2^64, NaN, +-inf and -0.0.
template <class T>
std::vector<T> edges()
{
    std::vector<T> values;
    if constexpr (std::is_same_v<T, bool>) {
        values = {false, true};
    } else if constexpr (isFloat<T>) {
        const double two63 = 9223372036854775808.0, two64 = 18446744073709551616.0;
        for (double v : {0.0, -0.0, 0.49999999999999994, -0.49999999999999994, 0.5, -0.5, 1.0, -1.0,
                         1.5, 2.5, -2.5, 3.0, 127.5, 255.5, -128.5, 65535.5, 2147483647.5,
                         -2147483648.5, 4294967295.5, 4503599627370497.0, 9007199254740991.0,
                         9007199254740992.0, 9007199254740994.0, two63 - 1024, two63, -two63,
                         -two63 - 2048, two64 - 2048, two64, 1e300, -1e300, 3.4028234663852886e38,
                         1e-310, std::numeric_limits<double>::infinity(),
                         -std::numeric_limits<double>::infinity(),
                         std::numeric_limits<double>::quiet_NaN()})
            if (std::isnan(v) || std::isinf(v) || std::fabs(v) <= std::numeric_limits<T>::max())
                values.push_back(static_cast<T>(v));
    } else {
        using L = std::numeric_limits<T>;
        const Int min = L::min(), max = L::max();
        const Int root = static_cast<Int>(std::sqrt(static_cast<long double>(max)));
        const Int candidates[] = {min, min + 1, -2, -1, 0, 1, 2, 3, max / 2, max / 2 + 1, root,
                                  root + 1, max - 1, max, 255, 256, 65535, 65536, 70000,
                                  4294967295LL, 4294967296LL, 3037000499LL, 3037000500LL,
                                  4503599627370497LL, 9007199254740991LL, 9007199254740992LL,
                                  9007199254740993LL, -9007199254740993LL, 9223372036854774784LL};
        for (Int v : candidates)
            if (v >= min && v <= max && std::find(values.begin(), values.end(), static_cast<T>(v)) == values.end())
                values.push_back(static_cast<T>(v));
    }
    return values;
}

/// The rule's store: integers saturate, floating values round half away from zero (exactly)
/// and saturate, NaN is 0, BOOL is non-zero; floating results take the nearest value.
template <class Res>
Res storeFloating(double v)
{
    if constexpr (std::is_same_v<Res, bool>) {
        return v != 0;
    } else if constexpr (isFloat<Res>) {
        return static_cast<Res>(v);
    } else {
        if (std::isnan(v))
            return 0;
        const long double r = std::round(static_cast<long double>(v));
        if (r >= static_cast<long double>(std::numeric_limits<Res>::max()) + 1)
            return std::numeric_limits<Res>::max();
        if (r <= static_cast<long double>(std::numeric_limits<Res>::min()))
            return std::numeric_limits<Res>::min();
        return static_cast<Res>(r);
    }
}

template <class Res>
Res storeInteger(Int v)
{
    if constexpr (std::is_same_v<Res, bool>)
        return v != 0;
    else if constexpr (isFloat<Res>)
        return static_cast<Res>(v);
    else
        return static_cast<Res>(std::clamp<Int>(v, std::numeric_limits<Res>::min(), std::numeric_limits<Res>::max()));
}

enum Op { Add, Sub, Mul, Div };
const char* const opName[] = {"+", "-", "*", "/"};

/// a op b by the rule, stored as Res.
template <class Res, class A, class B>
Res reference(Op op, A a, B b)
{
    if constexpr (isFloat<A> || isFloat<B>) {
        const double x = static_cast<double>(a), y = static_cast<double>(b);
        const double r = op == Add ? x + y : op == Sub ? x - y : op == Mul ? x * y : x / y;
        return storeFloating<Res>(r);
    } else {
        const Int x = a, y = b;
        Int r;
        if (op == Mul) {
            if (__builtin_mul_overflow(x, y, &r))
                r = Int(std::numeric_limits<unsigned long long>::max()) * 4; // only uint64 * uint64
        } else {
            r = op == Add ? x + y : op == Sub ? x - y : y == 0 ? 0 : x / y;
        }
        return storeInteger<Res>(r);
    }
}

/// The ordinary conversion by the rule: floating values truncate, saturate, NaN is 0.
template <class To, class From>
To convertReference(From v)
{
    if constexpr (std::is_same_v<To, bool>) {
        return v != 0;
    } else if constexpr (isFloat<From> && !isFloat<To>) {
        if (std::isnan(v))
            return 0;
        const long double t = std::trunc(static_cast<long double>(v));
        if (t >= static_cast<long double>(std::numeric_limits<To>::max()) + 1)
            return std::numeric_limits<To>::max();
        if (t <= static_cast<long double>(std::numeric_limits<To>::min()))
            return std::numeric_limits<To>::min();
        return static_cast<To>(t);
    } else {
        return static_cast<To>(v);
    }
}

template <class T>
bool same(T x, T y)
{
    if constexpr (isFloat<T>)
        return (std::isnan(x) && std::isnan(y)) || std::memcmp(&x, &y, sizeof(T)) == 0;
    else
        return x == y;
}

template <class T>
DImage imageOf(const std::vector<T>& values)
{
    DImage image(static_cast<int>(values.size()), 1, T(0));
    T* pixels = reinterpret_cast<T*>(image.data());
    for (std::size_t i = 0; i < values.size(); ++i) // vector<bool> has no data()
        pixels[i] = values[i];
    return image;
}

/// Counts the pixels checked and reports the first mismatches with what they were.
struct Checker {
    std::size_t checked = 0;
    int failures = 0;

    template <class Res>
    void pixels(const DImage& result, const std::vector<Res>& expected, const std::string& what,
                const std::vector<std::string>& operands)
    {
        ASSERT_EQ(result.type(), PixelTraits<Res>::type) << what;
        ASSERT_EQ(result.typeBits(), PixelTraits<Res>::bits) << what;
        ASSERT_EQ(result.size(), expected.size()) << what;
        const Res* got = reinterpret_cast<const Res*>(result.cdata());
        for (std::size_t i = 0; i < expected.size(); ++i, ++checked)
            if (!same(got[i], expected[i]) && ++failures <= 30)
                ADD_FAILURE() << what << " " << operands[i] << ": got " << text(got[i])
                              << ", the rule gives " << text(expected[i]);
    }
};

template <class L, class R>
void checkArithmetic(Checker& check)
{
    using kernels::ResultType;
    using kernels::ScalarResultType;
    const std::vector<L> left = edges<L>();
    const std::vector<R> right = edges<R>();
    // Every left value against every right value, as two images of one row.
    std::vector<L> a;
    std::vector<R> b;
    std::vector<std::string> operands;
    for (L x : left)
        for (R y : right) {
            a.push_back(x);
            b.push_back(y);
            operands.push_back("(" + text(x) + ", " + text(y) + ")");
        }
    const DImage imageA = imageOf(a), imageB = imageOf(b);
    for (Op op : {Add, Sub, Mul, Div}) {
        const std::string what = name<L>() + " " + opName[op] + " " + name<R>();
        std::vector<ResultType<L, R>> outOfPlace;
        std::vector<L> inPlace;
        for (std::size_t i = 0; i < a.size(); ++i) {
            outOfPlace.push_back(reference<ResultType<L, R>>(op, a[i], b[i]));
            inPlace.push_back(reference<L>(op, a[i], b[i]));
        }
        const DImage result = op == Add ? imageA + imageB : op == Sub ? imageA - imageB
                              : op == Mul ? imageA * imageB : imageA / imageB;
        check.pixels(result, outOfPlace, what, operands);
        DImage target = imageA;
        (op == Add ? target += imageB : op == Sub ? target -= imageB : op == Mul ? target *= imageB : target /= imageB);
        check.pixels(target, inPlace, what + " in place", operands);

        // The left values with each right value as a scalar.
        const DImage leftImage = imageOf(left);
        for (R y : right) {
            std::vector<ScalarResultType<L, R>> scalarOut;
            std::vector<L> scalarIn;
            std::vector<std::string> scalarOperands;
            for (L x : left) {
                scalarOut.push_back(reference<ScalarResultType<L, R>>(op, x, y));
                scalarIn.push_back(reference<L>(op, x, y));
                scalarOperands.push_back("(" + text(x) + ", " + text(y) + ")");
            }
            const DImage scalarResult = op == Add ? leftImage + y : op == Sub ? leftImage - y
                                        : op == Mul ? leftImage * y : leftImage / y;
            check.pixels(scalarResult, scalarOut, what + " scalar", scalarOperands);
            DImage scalarTarget = leftImage;
            (op == Add ? scalarTarget += y : op == Sub ? scalarTarget -= y : op == Mul ? scalarTarget *= y : scalarTarget /= y);
            check.pixels(scalarTarget, scalarIn, what + " scalar in place", scalarOperands);
        }
    }
}

template <class S, class T>
void checkConversion(Checker& check)
{
    const std::vector<S> values = edges<S>();
    const DImage image = imageOf(values);
    std::vector<T> expected;
    std::vector<std::string> operands;
    for (S v : values) {
        expected.push_back(convertReference<T>(v));
        operands.push_back("(" + text(v) + ")");
    }
    const std::string what = name<S>() + " as " + name<T>();
    check.pixels(image.asType<T>(), expected, what, operands);
    // pixel<T> reads by the same conversion (as bool, NaN counts as zero).
    std::vector<T> read;
    for (int i = 0; i < image.width(); ++i)
        read.push_back(image.pixel<T>(i, 0, T(0)));
    if constexpr (std::is_same_v<T, bool> && isFloat<S>)
        for (std::size_t i = 0; i < values.size(); ++i)
            expected[i] = values[i] < 0 || values[i] > 0;
    check.pixels(imageOf(read), expected, what + " by pixel()", operands);
}

} // namespace

TEST(ArithmeticTable, EveryPairOfPixelTypesAtTheEdgesFollowsTheDocumentedRule)
{
    Checker check;
    forEachType(PixelTypeList{}, [&](auto l) {
        forEachType(PixelTypeList{}, [&](auto r) {
            checkArithmetic<typename decltype(l)::type, typename decltype(r)::type>(check);
        });
    });
    EXPECT_EQ(check.failures, 0);
    EXPECT_GT(check.checked, 700000u);
    std::cout << "arithmetic table: " << check.checked << " pixels over 144 pairs\n";
}

TEST(ArithmeticTable, EveryConversionAtTheEdgesFollowsTheDocumentedRule)
{
    Checker check;
    forEachType(PixelTypeList{}, [&](auto s) {
        forEachType(PixelTypeList{}, [&](auto t) {
            checkConversion<typename decltype(s)::type, typename decltype(t)::type>(check);
        });
    });
    EXPECT_EQ(check.failures, 0);
    std::cout << "conversion table: " << check.checked << " pixels over 144 pairs\n";
}

TEST(ArithmeticTable, TheCasesThatBrokeTheRule)
{
    // uint32 * uint32 saturates (the product once overflowed a signed 64-bit type).
    DImage a(2, 1, 0u);
    a.setPixel<unsigned int>(0, 0, 4294967295u);
    a.setPixel<unsigned int>(1, 0, 70000u);
    const DImage square = a * a;
    EXPECT_EQ(square.pixel<unsigned int>(0, 0, 0), 4294967295u);
    EXPECT_EQ(square.pixel<unsigned int>(1, 0, 0), 4294967295u);

    // The largest double below 2^63 is in range and comes back exactly.
    DImage wide(1, 1, 0LL);
    wide.setPixel<double>(0, 0, 9223372036854774784.0);
    EXPECT_EQ(wide.pixel<long long>(0, 0, 0), 9223372036854774784LL);
    wide.setPixel<double>(0, 0, 7.0);
    wide /= 0.0;
    EXPECT_EQ(wide.pixel<long long>(0, 0, 0), std::numeric_limits<long long>::max());
    DImage unsignedWide(1, 1, 7ULL);
    unsignedWide /= 0.0;
    EXPECT_EQ(unsignedWide.pixel<unsigned long long>(0, 0, 0), std::numeric_limits<unsigned long long>::max());

    // Rounding is exact: below a half stays, odd integers above 2^52 stay.
    DImage counts(1, 1, 0);
    counts += 0.49999999999999994;
    EXPECT_EQ(counts.pixel<int>(0, 0, -1), 0);
    DImage odd(1, 1, 4503599627370497LL);
    odd += 0.0;
    EXPECT_EQ(odd.pixel<long long>(0, 0, 0), 4503599627370497LL);
}

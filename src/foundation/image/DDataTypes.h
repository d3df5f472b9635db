#pragma once

#include <string>
#include <type_traits>

namespace norvexa {
namespace datatypes {

/// Type class of an element: how its bits are read, not how wide it is.
/// The values are compared as numbers (a class of at least INT is signed or floating).
enum Type : int { NONE = 0, BOOL = 1, CHAR = 2, UINT = 3, INT = 4, FLOAT = 5 };

/// "NONE", "BOOL", "CHAR", "UINT", "INT" or "FLOAT"; DNotImplementedException
/// "Unknown data type" for anything else.
std::string typeStr(Type type);

/// The twelve pixel types, in dispatch order: (C++ type, type class, bits).
/// This table is the single source of truth for the type traits, the
/// dispatcher's type list, explicit instantiations and typed tests.
#define NORVEXA_PIXEL_TYPES(X)                                                                     \
    X(bool, BOOL, 8)                                                                               \
    X(char, CHAR, 8)                                                                               \
    X(signed char, INT, 8)                                                                         \
    X(short, INT, 16)                                                                              \
    X(int, INT, 32)                                                                                \
    X(long long, INT, 64)                                                                          \
    X(unsigned char, UINT, 8)                                                                      \
    X(unsigned short, UINT, 16)                                                                    \
    X(unsigned int, UINT, 32)                                                                      \
    X(unsigned long long, UINT, 64)                                                                \
    X(float, FLOAT, 32)                                                                            \
    X(double, FLOAT, 64)

/// Element description of a C++ pixel type; only the twelve pixel types have one.
template <class T>
struct PixelTraits;

#define NORVEXA_PIXEL_TRAITS_ENTRY(T, CLASS, BITS)                                                 \
    template <>                                                                                    \
    struct PixelTraits<T> {                                                                        \
        static constexpr Type type = CLASS;                                                        \
        static constexpr unsigned long bits = BITS;                                                \
    };
NORVEXA_PIXEL_TYPES(NORVEXA_PIXEL_TRAITS_ENTRY)
#undef NORVEXA_PIXEL_TRAITS_ENTRY

template <class T, class = void>
struct IsPixelType : std::false_type {};
template <class T>
struct IsPixelType<T, std::void_t<decltype(PixelTraits<T>::bits)>> : std::true_type {};

/// A compile-time list of element types.
template <class... Ts>
struct TypeList {};

namespace detail {
template <class List>
struct DropFirst;
template <class First, class... Rest>
struct DropFirst<TypeList<First, Rest...>> {
    using type = TypeList<Rest...>;
};
#define NORVEXA_PIXEL_LIST_ENTRY(T, CLASS, BITS) , T
using PixelTypeListWithVoid = TypeList<void NORVEXA_PIXEL_TYPES(NORVEXA_PIXEL_LIST_ENTRY)>;
#undef NORVEXA_PIXEL_LIST_ENTRY
} // namespace detail

/// The pixel type list, in dispatch order.
using PixelTypeList = typename detail::DropFirst<detail::PixelTypeListWithVoid>::type;

/// Carries an element type through a generic lambda: `[](auto tag) { using T = typename decltype(tag)::type; }`.
template <class T>
struct TypeTag {
    using type = T;
};

/// Whether (type, bits) is one of the twelve pixel types.
bool isPixelType(Type type, unsigned long bits) noexcept;

/// Raises DNotImplementedException "Missing implementation for type <typeStr> of size <bits>".
/// Out of line so that the success path of a dispatch carries no text handling.
[[noreturn]] void throwMissingImplementation(Type type, unsigned long bits);

} // namespace datatypes
} // namespace norvexa

#pragma once

#include "foundation/image/DDataTypes.h"

#include <utility>

namespace norvexa {
namespace datatypes {

/// Whether an image (anything with type() and typeBits()) holds elements of type T.
template <class T, class Image>
inline bool holdsType(const Image& image) noexcept
{
    return image.type() == PixelTraits<T>::type && image.typeBits() == PixelTraits<T>::bits;
}

template <class Functor, class LeftImage, class RightImage, class Result, class LeftList,
          class RightList>
struct BinaryDispatcher;

/// Double dispatch over two images. `Go` walks the left list, `GoRight<L>` the right
/// list for a fixed left element type, and calls `functor.fire<L, R>(left, right)`.
/// The walks unroll at compile time: one dispatch costs at most 24 comparisons.
/// A walk that finds nothing raises "Missing implementation for type ..." naming the
/// image it walked, before anything has been written.
template <class Functor, class LeftImage, class RightImage, class Result, class... Ls, class... Rs>
struct BinaryDispatcher<Functor, LeftImage, RightImage, Result, TypeList<Ls...>, TypeList<Rs...>> {
    static Result Go(LeftImage& left, RightImage& right, Functor functor)
    {
        return walkLeft<Ls...>(left, right, functor);
    }

    template <class L>
    static Result GoRight(LeftImage& left, RightImage& right, Functor functor)
    {
        return walkRight<L, Rs...>(left, right, functor);
    }

private:
    template <class Head, class... Tail>
    static Result walkLeft(LeftImage& left, RightImage& right, Functor& functor)
    {
        if (holdsType<Head>(left))
            return GoRight<Head>(left, right, std::move(functor));
        if constexpr (sizeof...(Tail) > 0)
            return walkLeft<Tail...>(left, right, functor);
        else
            throwMissingImplementation(left.type(), left.typeBits());
    }

    template <class L, class Head, class... Tail>
    static Result walkRight(LeftImage& left, RightImage& right, Functor& functor)
    {
        if (holdsType<Head>(right))
            return functor.template fire<L, Head>(left, right);
        if constexpr (sizeof...(Tail) > 0)
            return walkRight<L, Tail...>(left, right, functor);
        else
            throwMissingImplementation(right.type(), right.typeBits());
    }
};

/// The dispatcher over the full pixel type list on both sides, as every family uses it.
template <class Functor, class LeftImage, class RightImage, class Result>
using PixelDispatcher =
    BinaryDispatcher<Functor, LeftImage, RightImage, Result, PixelTypeList, PixelTypeList>;

namespace detail {
template <class Result, class F, class Head, class... Tail>
Result walkType(Type type, unsigned long bits, F& f)
{
    if (type == PixelTraits<Head>::type && bits == PixelTraits<Head>::bits)
        return f(TypeTag<Head>{});
    if constexpr (sizeof...(Tail) > 0)
        return walkType<Result, F, Tail...>(type, bits, f);
    else
        throwMissingImplementation(type, bits);
}

template <class Result, class F, class... Ts>
Result walkTypeList(Type type, unsigned long bits, F& f, TypeList<Ts...>)
{
    return walkType<Result, F, Ts...>(type, bits, f);
}
} // namespace detail

/// The inline walk for operations on one image: calls `f(TypeTag<T>{})` for the pixel
/// type T described by (type, bits), in list order, or fails with the dispatcher's text.
template <class F>
decltype(auto) dispatchType(Type type, unsigned long bits, F&& f)
{
    using Result = decltype(f(TypeTag<bool>{}));
    return detail::walkTypeList<Result>(type, bits, f, PixelTypeList{});
}

/// The inline walk with the type-tag image: for an operation without a partner, calls
/// `functor.fire<T, T>(image, tag)` where `tag` is an empty image of the same pixel type
/// (its null data pointer tells the body that there is no partner).
template <class TagImage, class Result, class Functor, class Image>
Result dispatchWithTag(Image& image, Functor functor)
{
    return dispatchType(image.type(), image.typeBits(), [&](auto tag) -> Result {
        using T = typename decltype(tag)::type;
        const TagImage tagImage(static_cast<const T*>(nullptr), image.allocator());
        return functor.template fire<T, T>(image, tagImage);
    });
}

} // namespace datatypes
} // namespace norvexa

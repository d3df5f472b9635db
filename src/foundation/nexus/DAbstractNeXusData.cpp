#include "foundation/nexus/DAbstractNeXusData.h"

#include "foundation/DException.h"
#include "foundation/image/DBinaryDispatcher.h"
#include "image/kernels/PixelMath.h"

#include <algorithm>
#include <cstring>

namespace norvexa {
namespace nexus {

template <class Allocator>
template <class T, class>
void DAbstractNeXusData<Allocator>::setValue(const T& value)
{
    image::DBasicImage<Allocator> scalar(this->_allocator, datatypes::PixelTraits<T>::type,
                                         datatypes::PixelTraits<T>::bits);
    scalar.resizeScalar();
    std::memcpy(scalar.data(), &value, sizeof(T));
    _value.swap(scalar);
}

template <class Allocator>
template <class T, class>
void DAbstractNeXusData<Allocator>::setValue(const T& first, unsigned long count)
{
    image::DBasicImage<Allocator> array(this->_allocator, datatypes::PixelTraits<T>::type,
                                        datatypes::PixelTraits<T>::bits);
    array.resize1D(count);
    if (count)
        std::memcpy(array.data(), &first, count * sizeof(T));
    _value.swap(array);
}

template <class Allocator>
void DAbstractNeXusData<Allocator>::setValue(const std::string& text)
{
    image::DBasicImage<Allocator> value(this->_allocator, datatypes::CHAR, 8 * text.size());
    value.resizeScalar();
    if (!text.empty())
        std::memcpy(value.data(), text.data(), text.size());
    _value.swap(value);
}

template <class Allocator>
template <class T, class>
void DAbstractNeXusData<Allocator>::asType(T& first, unsigned long count) const
{
    if (_value.empty())
        throw DRuntimeException("NeXus value of \"" + this->path() + "\" is empty");
    if (_value.type() == datatypes::CHAR)
        throw DRuntimeException("NeXus value of \"" + this->path() + "\" is text, not a number");
    if (count > _value.size())
        throw DOutOfRangeException("NeXus value of \"" + this->path() + "\" has fewer than " +
                                   std::to_string(count) + " elements");
    const image::DBasicImage<Allocator>* source = &_value;
    image::DBasicImage<Allocator> decoded(this->_allocator);
    if (_value.filter() != image::DCompression::FILTER_NONE) {
        decoded = _value;
        decoded.setFilter(image::DCompression::FILTER_NONE, 0);
        source = &decoded;
    }
    try {
        datatypes::dispatchType(source->type(), source->typeBits(), [&](auto tag) {
            using S = typename decltype(tag)::type;
            const S* in = reinterpret_cast<const S*>(source->cdata());
            T* out = &first;
            for (unsigned long i = 0; i < count; ++i)
                out[i] = kernels::convert<T>(in[i]);
        });
    } catch (const DNotImplementedException& e) {
        // A value of no pixel type does not convert: the getters read that as absent.
        throw DRuntimeException(e.what());
    }
}

template <class Allocator>
void DAbstractNeXusData<Allocator>::asType(std::string& out, unsigned long /*count*/) const
{
    if (_value.type() != datatypes::CHAR)
        throw DRuntimeException("NeXus value of \"" + this->path() + "\" is not text");
    const char* bytes = _value.cdata();
    std::size_t length = _value.usedBytes();
    // One text per element; an array of texts gives its first.
    if (_value.typeBits() > 8 && _value.size() > 1)
        length = std::min<std::size_t>(length, _value.typeBits() / 8);
    std::size_t end = 0;
    while (end < length && bytes[end] != '\0')
        ++end;
    out.assign(bytes ? bytes : "", end);
}

template class DAbstractNeXusData<image::StdAllocator>;
template class DAbstractNeXusData<image::ShmAllocator>;

#define NORVEXA_INSTANTIATE_NEXUS_VALUE(T, CLASS, BITS)                                            \
    template void DAbstractNeXusData<image::StdAllocator>::setValue<T>(const T&);                  \
    template void DAbstractNeXusData<image::ShmAllocator>::setValue<T>(const T&);                  \
    template void DAbstractNeXusData<image::StdAllocator>::setValue<T>(const T&, unsigned long);   \
    template void DAbstractNeXusData<image::ShmAllocator>::setValue<T>(const T&, unsigned long);   \
    template void DAbstractNeXusData<image::StdAllocator>::asType<T>(T&, unsigned long) const;     \
    template void DAbstractNeXusData<image::ShmAllocator>::asType<T>(T&, unsigned long) const;
NORVEXA_PIXEL_TYPES(NORVEXA_INSTANTIATE_NEXUS_VALUE)
#undef NORVEXA_INSTANTIATE_NEXUS_VALUE

} // namespace nexus
} // namespace norvexa

#include "DImageStack.h"

#include "foundation/DAssert.h"
#include "foundation/DException.h"

#include <deque>

namespace norvexa {
namespace imglib {

namespace {
/// The stored mask's container, read in place: a frame-sized mask is not copied just
/// to be measured.
const DBasicImage* storedMask(const DImage& image)
{
    try {
        const auto& node = image.optionalData().neXus().at(DImageOptionalData::pixelMaskPath());
        return node.type() == nexus::NeXusData ? &node.asData().data() : nullptr;
    } catch (const DOutOfRangeException&) {
        return nullptr;
    }
}

bool hasMaskOfItsSize(const DImage& image)
{
    const DBasicImage* mask = storedMask(image);
    return mask && !mask->empty() && mask->shape().size() >= 2 &&
           mask->shape()[0] == static_cast<unsigned long>(image.width()) &&
           mask->shape()[1] == static_cast<unsigned long>(image.height());
}
} // namespace

class DImageStackPrivate {
public:
    DImageStackPrivate(DImageStack* q, int stackSize) : _q(q), _stackSize(stackSize) {}

    void popFront()
    {
        if (_imageStack.empty())
            return;
        _bytes -= DImageStack::imageSize(_imageStack.front());
        _imageStack.pop_front();
    }

    DImageStack* _q;
    int _stackSize;
    unsigned long long _bytes = 0;
    std::deque<DImage> _imageStack;
};

DImageStack::DImageStack(int stackSize) : _d(std::make_unique<DImageStackPrivate>(this, stackSize)) {}

DImageStack::~DImageStack() = default;

int DImageStack::maxStackSize() const { return _d->_stackSize; }

unsigned long long DImageStack::imageSize(const DImage& image)
{
    unsigned long long bytes = image.cdata() ? image.size() * image.dataSize() : 0;
    if (const DBasicImage* mask = storedMask(image))
        bytes += mask->usedBytes();
    return bytes;
}

unsigned long long DImageStack::bytesHeld() const { return _d->_bytes; }

DImage DImageStack::front() const
{
    if (_d->_imageStack.empty())
        throw DOutOfRangeException("Image Stack is empty");
    return _d->_imageStack.front();
}

void DImageStack::popFront() { _d->popFront(); }

void DImageStack::pushBack(const DImage& image)
{
    auto& stack = _d->_imageStack;
    if (_d->_stackSize > 0 && stack.size() == static_cast<std::size_t>(_d->_stackSize))
        _d->popFront();
    {
        // Named as the members they stand for, so that a failure reads as the invariant;
        // a negative limit, as unsigned, never binds.
        const std::size_t _stackSize = static_cast<std::size_t>(_d->_stackSize);
        const auto& _imageStack = stack;
        NORVEXA_ASSERT(_stackSize == 0 || _imageStack.size() <= _stackSize, "pushBack");
    }

    DImage copy(image);
    if (!hasMaskOfItsSize(copy))
        copy.optionalData().set_pixel_mask(DImage(copy, 0u));
    const unsigned long long size = imageSize(copy);
    // Never drop the last image held for the sake of the bytes.
    while (_d->_bytes + size > kMaxBytes && stack.size() >= 2)
        _d->popFront();
    _d->_bytes += size;
    stack.push_back(std::move(copy));
}

unsigned long DImageStack::size() const { return _d->_imageStack.size(); }

DImage DImageStack::operator[](int index) const
{
    const unsigned long long position = static_cast<unsigned long long>(static_cast<long long>(index));
    if (position >= _d->_imageStack.size())
        throw DOutOfRangeException("DImageStack: index is out of range");
    return _d->_imageStack[position];
}

bool DImageStack::empty() const { return _d->_imageStack.empty(); }

} // namespace imglib
} // namespace norvexa

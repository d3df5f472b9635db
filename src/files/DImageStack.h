#pragma once

#include "DAbstractImageIterator.h"

#include <memory>

namespace norvexa {
namespace imglib {

class DImageStackPrivate;

/// Images held in memory, oldest first, for a viewer that keeps the recent frames of a
/// live detector. Bounded twice: by a number of images (stackSize; 0 or below for no
/// limit) and by 1 GiB of pixel and mask bytes; the oldest images are dropped to stay
/// in bounds, but never the last one held, so a single larger image is still kept.
/// Indices are positions (0 the oldest), not stable numbers. Images are held by value:
/// pushBack stores a copy, with an all-zero UINT 32 mask of its size when it has no mask
/// of its size; front and operator[] return copies.
class DImageStack : public DAbstractImageIterator {
public:
    /// The limit of bytes held.
    static constexpr unsigned long long kMaxBytes = 0x40000000ULL;

    explicit DImageStack(int stackSize);
    ~DImageStack() override;

    int maxStackSize() const;

    bool blocking() const override { return false; }
    void setBlocking(bool, int) override {}
    /// DOutOfRangeException "Image Stack is empty" when there is none.
    DImage front() const override;
    /// Silent on an empty stack.
    void popFront() override;
    void pushBack(const DImage& image) override;
    unsigned long size() const override;
    int first() const override { return 0; }
    int last() const override { return static_cast<int>(size()) - 1; }
    /// DOutOfRangeException "DImageStack: index is out of range".
    DImage operator[](int index) const override;
    bool empty() const override;
    void update() override {}

    /// The bytes an image counts with: its pixels and its mask's.
    static unsigned long long imageSize(const DImage& image);
    /// The bytes held now.
    unsigned long long bytesHeld() const;

private:
    std::unique_ptr<DImageStackPrivate> _d;
};

} // namespace imglib
} // namespace norvexa

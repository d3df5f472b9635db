#pragma once

#include "foundation/nexus/DBasicNeXusData.h"
#include "foundation/nexus/DBasicNeXusGroup.h"
#include "foundation/nexus/DBasicNeXusNode.h"

#include <string>

namespace norvexa {
namespace nexus {

/// Everything known of an image or a series besides its pixels, in the shape of a
/// NeXus file: groups, datasets and attributes addressed by absolute paths such as
/// "/entry/instrument/detector/count_time".
///
/// Copies are deep and share no node. In the shared-memory form the tree object, its
/// nodes, names and values all lie in the segment, linked by offset pointers, so that a
/// second process that maps the segment elsewhere reads the same tree.
template <class Allocator>
class DBasicNeXusTree {
public:
    using Node = DBasicNeXusNode<Allocator>;
    using Group = DBasicNeXusGroup<Allocator>;
    using Data = DBasicNeXusData<Allocator>;
    using NodePointer = typename Node::NodePointer;

    /// Destroys a node and everything below it.
    struct _NodeDeleter {
        void operator()(NodePointer node) const noexcept { Node::destroy(node); }
    };

    /// An empty tree: the root group only.
    explicit DBasicNeXusTree(const Allocator& allocator = Allocator());
    DBasicNeXusTree(const DBasicNeXusTree& other);
    DBasicNeXusTree(const DBasicNeXusTree& other, const Allocator& allocator);
    template <class OtherAllocator>
    DBasicNeXusTree(const DBasicNeXusTree<OtherAllocator>& other, const Allocator& allocator);
    /// Takes over the nodes; the source is left an empty, usable tree.
    DBasicNeXusTree(DBasicNeXusTree&& other);
    ~DBasicNeXusTree();

    DBasicNeXusTree& operator=(const DBasicNeXusTree& other);
    DBasicNeXusTree& operator=(DBasicNeXusTree&& other) noexcept;
    void swap(DBasicNeXusTree& other) noexcept;

    Allocator allocator() const { return _allocator; }
    Group& root() noexcept { return static_cast<Group&>(*Node::raw(_root)); }
    const Group& root() const noexcept { return static_cast<const Group&>(*Node::raw(_root)); }

    /// The node at the absolute path; DOutOfRangeException if there is none (a dataset
    /// on the way of a longer path counts as missing).
    Node& at(const std::string& path);
    const Node& at(const std::string& path) const;
    /// The node at the path, made if it is not there: the last component of the given
    /// kind (NeXusGroup or NeXusData), missing components on the way as groups. A node
    /// that stands there is returned unchanged. DRuntimeException when a dataset stands
    /// in the way, DBadParameterException for the kind NeXusAttribute.
    Node& newPath(const std::string& path, DNeXusType type);
    /// The number of nodes: groups, datasets and attributes, the root included.
    std::size_t size() const;

private:
    template <class>
    friend class DBasicNeXusTree;

    /// A deep copy of `source` and everything below it, with `parent` as its parent.
    template <class OtherAllocator>
    static NodePointer copyNode(const DBasicNeXusNode<OtherAllocator>& source,
                                const Allocator& allocator, NodePointer parent);
    const Node* find(const std::string& path) const noexcept;

    Allocator _allocator;
    NodePointer _root;
};

template <class Allocator>
inline void swap(DBasicNeXusTree<Allocator>& a, DBasicNeXusTree<Allocator>& b) noexcept
{
    a.swap(b);
}

using DNeXusTree = DBasicNeXusTree<image::StdAllocator>;
using DShmNeXusTree = DBasicNeXusTree<image::ShmAllocator>;

extern template class DBasicNeXusTree<image::StdAllocator>;
extern template class DBasicNeXusTree<image::ShmAllocator>;
extern template DBasicNeXusTree<image::StdAllocator>::DBasicNeXusTree(
    const DBasicNeXusTree<image::ShmAllocator>&, const image::StdAllocator&);
extern template DBasicNeXusTree<image::ShmAllocator>::DBasicNeXusTree(
    const DBasicNeXusTree<image::StdAllocator>&, const image::ShmAllocator&);

} // namespace nexus
} // namespace norvexa

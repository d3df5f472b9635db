#pragma once

#include "foundation/nexus/DBasicNeXusNode.h"

namespace norvexa {
namespace nexus {

/// A group: holds groups and datasets (its children) and attributes.
template <class Allocator>
class DBasicNeXusGroup : public DBasicNeXusNode<Allocator> {
    using Node = DBasicNeXusNode<Allocator>;

public:
    using typename Node::const_iterator;

    /// Adds a child group, or returns the child group of that name; DRuntimeException
    /// if a dataset of that name stands there.
    DBasicNeXusGroup& addSubGroup(const std::string& name);
    /// Adds a child dataset with an empty value of the given type, or returns the child
    /// dataset of that name as it is; DRuntimeException if a group stands there.
    DBasicNeXusData<Allocator>& addDataset(const std::string& name, datatypes::Type type,
                                           unsigned long typeBits);
    /// Adds the attribute, or returns the one of that name.
    DBasicNeXusData<Allocator>& addAttribute(const std::string& name, datatypes::Type type,
                                             unsigned long typeBits);
    /// The direct child dataset of that name; DOutOfRangeException if there is none.
    DBasicNeXusData<Allocator>& dataset(const std::string& name);
    const DBasicNeXusData<Allocator>& dataset(const std::string& name) const;
    /// The children in name order; with `recursive`, every node below, depth first.
    std::vector<Node*> children(bool recursive);
    std::vector<const Node*> children(bool recursive) const;
    /// Removes a child with all below it: a direct child's name, or a path (with "/"),
    /// taken from this group. What is not there is ignored.
    void eraseChild(const std::string& name);
    /// The attributes in name order.
    std::vector<const Node*> attributes() const { return this->attributeNodes(); }

    /// This group first, then every node below it (see const_iterator).
    const_iterator begin() const { return const_iterator(this, this); }
    const_iterator end() const { return const_iterator(nullptr, this); }

    DBasicNeXusGroup(const DBasicNeXusGroup& other) = default;

private:
    friend class DBasicNeXusNode<Allocator>;
    DBasicNeXusGroup(const Allocator& allocator, std::string_view name,
                     typename Node::NodePointer parent)
        : Node(allocator, NeXusGroup, name, parent)
    {
    }
    typename Node::NodePointer self() const;
};

} // namespace nexus
} // namespace norvexa

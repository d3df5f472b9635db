#pragma once

#include "foundation/nexus/DAbstractNeXusData.h"

namespace norvexa {
namespace nexus {

/// A dataset (or an attribute, with the kind NeXusAttribute) with the attribute
/// operations.
template <class Allocator>
class DBasicNeXusData : public DAbstractNeXusData<Allocator> {
    using Node = DBasicNeXusNode<Allocator>;

public:
    /// Adds the attribute, or returns the one of that name.
    DBasicNeXusData& addAttribute(const std::string& name, datatypes::Type type,
                                  unsigned long typeBits)
    {
        return this->addAttributeNode(name, type, typeBits);
    }
    /// Removes the attribute; what is not there is ignored.
    void eraseAttribute(const std::string& name) { this->eraseFrom(this->_attributes, name); }
    /// The attributes in name order.
    std::vector<const Node*> attributes() const { return this->attributeNodes(); }

    DBasicNeXusData(const DBasicNeXusData& other) = default;

private:
    friend class DBasicNeXusNode<Allocator>;
    DBasicNeXusData(const Allocator& allocator, DNeXusType type, std::string_view name,
                    typename Node::NodePointer parent)
        : DAbstractNeXusData<Allocator>(allocator, type, name, parent)
    {
    }
};

} // namespace nexus
} // namespace norvexa

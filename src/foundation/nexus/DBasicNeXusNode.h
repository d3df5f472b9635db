#pragma once

#include "foundation/image/DAllocators.h"
#include "foundation/image/DBasicImageData.h"
#include "foundation/image/DDataTypes.h"

#include <boost/container/map.hpp>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace norvexa {
namespace nexus {

/// The kind of a node.
enum DNeXusType : int { NeXusGroup = 0, NeXusData = 1, NeXusAttribute = 2 };

template <class Allocator>
class DBasicNeXusGroup;
template <class Allocator>
class DBasicNeXusData;
template <class Allocator>
class DBasicNeXusTree;

/// The common part of groups, datasets and attributes of a NeXus tree.
///
/// Nodes have no virtual functions, so that they can live in a shared-memory segment:
/// every link is the allocator's pointer type (an offset pointer in a segment) and every
/// byte comes from the allocator. A node knows its parent, which gives path().
/// Children and attributes are kept in two maps ordered by name bytes.
///
/// The tree owns the nodes. Copying a node object by value copies its name, kind and
/// value; the copy refers to the same children and attributes without owning them, and
/// is only good while the tree is.
template <class Allocator>
class DBasicNeXusNode {
public:
    using allocator_type = Allocator;
    template <class T>
    using PointerTo = typename std::allocator_traits<Allocator>::template rebind_traits<T>::pointer;
    using NodePointer = PointerTo<DBasicNeXusNode>;
    using Name = image::DBasicImageData<Allocator>;

    /// Orders names by their bytes; also compares with plain text, so that a lookup
    /// allocates nothing.
    struct _StringLess {
        using is_transparent = void;
        static std::string_view view(const Name& n) { return {n.cdata(), n.size()}; }
        static std::string_view view(std::string_view s) { return s; }
        template <class A, class B>
        bool operator()(const A& a, const B& b) const
        {
            return view(a) < view(b);
        }
    };
    using ChildMap =
        boost::container::map<Name, NodePointer, _StringLess,
                              typename std::allocator_traits<Allocator>::template rebind_alloc<
                                  std::pair<const Name, NodePointer>>>;

    /// Visits a group and everything below it, depth first, a parent before its
    /// children, children in name order; attributes are not visited.
    class const_iterator {
    public:
        const DBasicNeXusNode& operator*() const { return *_current; }
        const DBasicNeXusNode* operator->() const { return _current; }
        const_iterator& operator++();
        bool operator!=(const const_iterator& other) const { return _current != other._current; }
        bool operator==(const const_iterator& other) const { return _current == other._current; }

    private:
        friend class DBasicNeXusGroup<Allocator>;
        const_iterator(const DBasicNeXusNode* current, const DBasicNeXusNode* start)
            : _current(current), _start(start)
        {
        }
        const DBasicNeXusNode* _current;
        const DBasicNeXusNode* _start;
    };

    DNeXusType type() const noexcept { return _type; }
    /// The last path component ("" for the root).
    std::string name() const { return std::string(_name.cdata(), _name.size()); }
    /// The absolute path; "/" for the root.
    std::string path() const;
    Allocator allocator() const { return _allocator; }

    /// The node as a group; DRuntimeException if it is a dataset or an attribute.
    DBasicNeXusGroup<Allocator>& asGroup();
    const DBasicNeXusGroup<Allocator>& asGroup() const;
    /// The node as a dataset (or attribute); DRuntimeException if it is a group.
    DBasicNeXusData<Allocator>& asData();
    const DBasicNeXusData<Allocator>& asData() const;

    DBasicNeXusNode(const DBasicNeXusNode& other);
    DBasicNeXusNode& operator=(const DBasicNeXusNode&) = delete;
    ~DBasicNeXusNode() = default;

protected:
    template <class>
    friend class DBasicNeXusNode;
    template <class>
    friend class DBasicNeXusGroup;
    template <class>
    friend class DBasicNeXusData;
    template <class>
    friend class DBasicNeXusTree;

    DBasicNeXusNode(const Allocator& allocator, DNeXusType type, std::string_view name,
                    NodePointer parent);

    static Name makeName(const Allocator& allocator, std::string_view text);
    /// Allocates and constructs a group (for NeXusGroup) or a dataset node.
    static NodePointer create(const Allocator& allocator, DNeXusType type, std::string_view name,
                              NodePointer parent);
    template <class T, class... Args>
    static DBasicNeXusNode* constructNode(const Allocator& allocator, Args&&... args);
    /// Destroys a node with everything below it and its attributes.
    static void destroy(NodePointer node) noexcept;
    static DBasicNeXusNode* raw(const NodePointer& p) { return image::toRawPointer(p); }

    /// The attribute of that name, made (empty, of the given type) if it is not there.
    DBasicNeXusData<Allocator>& addAttributeNode(std::string_view name, datatypes::Type type,
                                                 unsigned long typeBits);
    std::vector<const DBasicNeXusNode*> attributeNodes() const;
    void eraseFrom(ChildMap& map, std::string_view name) noexcept;

    Allocator _allocator;
    ChildMap _children;
    ChildMap _attributes;
    DNeXusType _type;
    Name _name;
    NodePointer _parent;
};

} // namespace nexus
} // namespace norvexa

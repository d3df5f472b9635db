#include "foundation/nexus/DBasicNeXusNode.h"

#include "foundation/DException.h"
#include "foundation/nexus/DBasicNeXusData.h"
#include "foundation/nexus/DBasicNeXusGroup.h"

#include <cstring>
#include <new>

namespace norvexa {
namespace nexus {

template <class Allocator>
DBasicNeXusNode<Allocator>::DBasicNeXusNode(const Allocator& allocator, DNeXusType type,
                                            std::string_view name, NodePointer parent)
    : _allocator(allocator), _children(typename ChildMap::allocator_type(allocator)),
      _attributes(typename ChildMap::allocator_type(allocator)), _type(type),
      _name(makeName(allocator, name)), _parent(parent)
{
}

template <class Allocator>
DBasicNeXusNode<Allocator>::DBasicNeXusNode(const DBasicNeXusNode& other)
    : _allocator(other._allocator), _children(other._children), _attributes(other._attributes),
      _type(other._type), _name(other._name), _parent(other._parent)
{
}

template <class Allocator>
typename DBasicNeXusNode<Allocator>::Name
DBasicNeXusNode<Allocator>::makeName(const Allocator& allocator, std::string_view text)
{
    Name name(allocator);
    name.resize(text.size());
    if (!text.empty())
        std::memcpy(name.data(), text.data(), text.size());
    return name;
}

template <class Allocator>
std::string DBasicNeXusNode<Allocator>::path() const
{
    if (!_parent)
        return "/";
    std::vector<const DBasicNeXusNode*> chain;
    for (const DBasicNeXusNode* node = this; node->_parent; node = raw(node->_parent))
        chain.push_back(node);
    std::string result;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        result += '/';
        result.append((*it)->_name.cdata(), (*it)->_name.size());
    }
    return result;
}

template <class Allocator>
DBasicNeXusGroup<Allocator>& DBasicNeXusNode<Allocator>::asGroup()
{
    if (_type != NeXusGroup)
        throw DRuntimeException("Node \"" + path() + "\" is not a NeXus group");
    return static_cast<DBasicNeXusGroup<Allocator>&>(*this);
}

template <class Allocator>
const DBasicNeXusGroup<Allocator>& DBasicNeXusNode<Allocator>::asGroup() const
{
    return const_cast<DBasicNeXusNode*>(this)->asGroup();
}

template <class Allocator>
DBasicNeXusData<Allocator>& DBasicNeXusNode<Allocator>::asData()
{
    if (_type == NeXusGroup)
        throw DRuntimeException("Path \"" + path() + "\" does not contain NeXus data");
    return static_cast<DBasicNeXusData<Allocator>&>(*this);
}

template <class Allocator>
const DBasicNeXusData<Allocator>& DBasicNeXusNode<Allocator>::asData() const
{
    return const_cast<DBasicNeXusNode*>(this)->asData();
}

namespace {
template <class T, class Allocator>
void destruct(const Allocator& allocator, T* object) noexcept
{
    using Traits = typename std::allocator_traits<Allocator>::template rebind_traits<T>;
    typename Traits::allocator_type typed(allocator);
    object->~T();
    Traits::deallocate(typed, typename Traits::pointer(object), 1);
}
} // namespace

template <class Allocator>
template <class T, class... Args>
DBasicNeXusNode<Allocator>* DBasicNeXusNode<Allocator>::constructNode(const Allocator& allocator,
                                                                      Args&&... args)
{
    using Traits = typename std::allocator_traits<Allocator>::template rebind_traits<T>;
    typename Traits::allocator_type typed(allocator);
    auto p = Traits::allocate(typed, 1);
    try {
        return ::new (static_cast<void*>(image::toRawPointer(p))) T(std::forward<Args>(args)...);
    } catch (...) {
        Traits::deallocate(typed, p, 1);
        throw;
    }
}

template <class Allocator>
typename DBasicNeXusNode<Allocator>::NodePointer
DBasicNeXusNode<Allocator>::create(const Allocator& allocator, DNeXusType type,
                                   std::string_view name, NodePointer parent)
{
    if (type == NeXusGroup)
        return NodePointer(constructNode<DBasicNeXusGroup<Allocator>>(allocator, allocator, name, parent));
    return NodePointer(
        constructNode<DBasicNeXusData<Allocator>>(allocator, allocator, type, name, parent));
}

template <class Allocator>
void DBasicNeXusNode<Allocator>::destroy(NodePointer pointer) noexcept
{
    DBasicNeXusNode* node = raw(pointer);
    if (!node)
        return;
    for (auto& entry : node->_children)
        destroy(entry.second);
    for (auto& entry : node->_attributes)
        destroy(entry.second);
    const Allocator allocator = node->_allocator;
    if (node->_type == NeXusGroup)
        destruct(allocator, static_cast<DBasicNeXusGroup<Allocator>*>(node));
    else
        destruct(allocator, static_cast<DBasicNeXusData<Allocator>*>(node));
}

template <class Allocator>
DBasicNeXusData<Allocator>&
DBasicNeXusNode<Allocator>::addAttributeNode(std::string_view name, datatypes::Type type,
                                             unsigned long typeBits)
{
    auto found = _attributes.find(name);
    if (found != _attributes.end())
        return static_cast<DBasicNeXusData<Allocator>&>(*raw(found->second));
    if (name.empty() || name.find('/') != std::string_view::npos)
        throw DBadParameterException("Invalid NeXus name \"" + std::string(name) + "\"");
    NodePointer node = create(_allocator, NeXusAttribute, name, NodePointer(this));
    try {
        auto& data = static_cast<DBasicNeXusData<Allocator>&>(*raw(node));
        data.data() = image::DBasicImage<Allocator>(_allocator, type, typeBits);
        _attributes.emplace(makeName(_allocator, name), node);
        return data;
    } catch (...) {
        destroy(node);
        throw;
    }
}

template <class Allocator>
std::vector<const DBasicNeXusNode<Allocator>*> DBasicNeXusNode<Allocator>::attributeNodes() const
{
    std::vector<const DBasicNeXusNode*> result;
    result.reserve(_attributes.size());
    for (const auto& entry : _attributes)
        result.push_back(raw(entry.second));
    return result;
}

template <class Allocator>
void DBasicNeXusNode<Allocator>::eraseFrom(ChildMap& map, std::string_view name) noexcept
{
    auto found = map.find(name);
    if (found == map.end())
        return;
    NodePointer node = found->second;
    map.erase(found);
    destroy(node);
}

template <class Allocator>
typename DBasicNeXusNode<Allocator>::const_iterator&
DBasicNeXusNode<Allocator>::const_iterator::operator++()
{
    if (!_current)
        return *this;
    if (!_current->_children.empty()) {
        _current = raw(_current->_children.begin()->second);
        return *this;
    }
    // Climb until a node with a next sibling, but never above where the walk began.
    for (const DBasicNeXusNode* node = _current; node != _start; node = raw(node->_parent)) {
        const DBasicNeXusNode* parent = raw(node->_parent);
        auto next = parent->_children.upper_bound(std::string_view(node->_name.cdata(), node->_name.size()));
        if (next != parent->_children.end()) {
            _current = raw(next->second);
            return *this;
        }
    }
    _current = nullptr;
    return *this;
}

template class DBasicNeXusNode<image::StdAllocator>;
template class DBasicNeXusNode<image::ShmAllocator>;

} // namespace nexus
} // namespace norvexa

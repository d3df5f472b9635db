#include "foundation/nexus/DBasicNeXusTree.h"

#include "foundation/DException.h"

namespace norvexa {
namespace nexus {

namespace {
/// Calls f(component) for each non-empty component of a slash-separated path.
template <class F>
void forEachComponent(const std::string& path, F&& f)
{
    std::size_t begin = 0;
    while (begin <= path.size()) {
        std::size_t end = path.find('/', begin);
        if (end == std::string::npos)
            end = path.size();
        if (end > begin && !f(std::string_view(path).substr(begin, end - begin)))
            return;
        begin = end + 1;
    }
}

/// Whether `component` (a view into `path`) is its last non-empty component.
bool isLastComponent(const std::string& path, std::string_view component)
{
    const char* end = component.data() + component.size();
    const char* stop = path.data() + path.size();
    while (end < stop && *end == '/')
        ++end;
    return end == stop;
}
} // namespace

template <class Allocator>
DBasicNeXusTree<Allocator>::DBasicNeXusTree(const Allocator& allocator)
    : _allocator(allocator), _root(Node::create(allocator, NeXusGroup, "", NodePointer()))
{
}

template <class Allocator>
DBasicNeXusTree<Allocator>::DBasicNeXusTree(const DBasicNeXusTree& other)
    : DBasicNeXusTree(other, other._allocator)
{
}

template <class Allocator>
DBasicNeXusTree<Allocator>::DBasicNeXusTree(const DBasicNeXusTree& other, const Allocator& allocator)
    : _allocator(allocator), _root(copyNode(other.root(), allocator, NodePointer()))
{
}

template <class Allocator>
template <class OtherAllocator>
DBasicNeXusTree<Allocator>::DBasicNeXusTree(const DBasicNeXusTree<OtherAllocator>& other,
                                            const Allocator& allocator)
    : _allocator(allocator), _root(copyNode(other.root(), allocator, NodePointer()))
{
}

template <class Allocator>
DBasicNeXusTree<Allocator>::DBasicNeXusTree(DBasicNeXusTree&& other)
    : _allocator(other._allocator), _root(other._root)
{
    other._root = Node::create(other._allocator, NeXusGroup, "", NodePointer());
}

template <class Allocator>
DBasicNeXusTree<Allocator>::~DBasicNeXusTree()
{
    _NodeDeleter()(_root);
}

template <class Allocator>
DBasicNeXusTree<Allocator>& DBasicNeXusTree<Allocator>::operator=(const DBasicNeXusTree& other)
{
    if (this != &other) {
        DBasicNeXusTree copy(other, _allocator);
        swap(copy);
    }
    return *this;
}

template <class Allocator>
DBasicNeXusTree<Allocator>& DBasicNeXusTree<Allocator>::operator=(DBasicNeXusTree&& other) noexcept
{
    if (this != &other)
        swap(other);
    return *this;
}

template <class Allocator>
void DBasicNeXusTree<Allocator>::swap(DBasicNeXusTree& other) noexcept
{
    using std::swap;
    swap(_allocator, other._allocator);
    swap(_root, other._root);
}

template <class Allocator>
template <class OtherAllocator>
typename DBasicNeXusTree<Allocator>::NodePointer
DBasicNeXusTree<Allocator>::copyNode(const DBasicNeXusNode<OtherAllocator>& source,
                                     const Allocator& allocator, NodePointer parent)
{
    const std::string_view name(source._name.cdata(), source._name.size());
    NodePointer node = Node::create(allocator, source._type, name, parent);
    try {
        Node& target = *Node::raw(node);
        if (source._type != NeXusGroup) {
            image::DBasicImage<Allocator> value(
                static_cast<const DBasicNeXusData<OtherAllocator>&>(source).data(), allocator);
            static_cast<Data&>(target).data().swap(value);
        }
        // Attributes and children alike: copied one by one, each owned by the map at once.
        const auto copyEntries = [&](const auto& from, typename Node::ChildMap& into) {
            for (const auto& entry : from) {
                const auto& child = *DBasicNeXusNode<OtherAllocator>::raw(entry.second);
                NodePointer copy = copyNode(child, allocator, node);
                try {
                    into.emplace_hint(into.end(),
                                      Node::makeName(allocator, {entry.first.cdata(), entry.first.size()}),
                                      copy);
                } catch (...) {
                    Node::destroy(copy);
                    throw;
                }
            }
        };
        copyEntries(source._attributes, target._attributes);
        copyEntries(source._children, target._children);
    } catch (...) {
        Node::destroy(node);
        throw;
    }
    return node;
}

template <class Allocator>
const typename DBasicNeXusTree<Allocator>::Node*
DBasicNeXusTree<Allocator>::find(const std::string& path) const noexcept
{
    if (path.empty() || path[0] != '/')
        return nullptr;
    const Node* node = &root();
    forEachComponent(path, [&](std::string_view component) {
        auto found = node->_children.find(component);
        node = found == node->_children.end() ? nullptr : Node::raw(found->second);
        return node != nullptr;
    });
    return node;
}

template <class Allocator>
typename DBasicNeXusTree<Allocator>::Node& DBasicNeXusTree<Allocator>::at(const std::string& path)
{
    return const_cast<Node&>(static_cast<const DBasicNeXusTree&>(*this).at(path));
}

template <class Allocator>
const typename DBasicNeXusTree<Allocator>::Node&
DBasicNeXusTree<Allocator>::at(const std::string& path) const
{
    const Node* node = find(path);
    if (!node)
        throw DOutOfRangeException("Path \"" + path + "\" is not in the NeXus tree");
    return *node;
}

template <class Allocator>
typename DBasicNeXusTree<Allocator>::Node& DBasicNeXusTree<Allocator>::newPath(const std::string& path,
                                                                               DNeXusType type)
{
    if (type == NeXusAttribute)
        throw DBadParameterException("newPath makes groups and datasets, not attributes");
    if (path.empty() || path[0] != '/')
        throw DBadParameterException("Path \"" + path + "\" is not absolute");
    Node* node = &root();
    forEachComponent(path, [&](std::string_view component) {
        auto found = node->_children.find(component);
        if (found != node->_children.end()) {
            node = Node::raw(found->second);
            if (node->type() != NeXusGroup && !isLastComponent(path, component))
                throw DRuntimeException("Path \"" + path + "\" runs through a NeXus dataset");
            return true;
        }
        Group& group = static_cast<Group&>(*node);
        const std::string name(component);
        if (isLastComponent(path, component) && type == NeXusData)
            node = &group.addDataset(name, datatypes::NONE, 0);
        else
            node = &group.addSubGroup(name);
        return true;
    });
    return *node;
}

template <class Allocator>
std::size_t DBasicNeXusTree<Allocator>::size() const
{
    std::size_t n = 1 + root()._attributes.size();
    for (const Node& node : root())
        if (&node != &root())
            n += 1 + node._attributes.size();
    return n;
}

template class DBasicNeXusTree<image::StdAllocator>;
template class DBasicNeXusTree<image::ShmAllocator>;
template DBasicNeXusTree<image::StdAllocator>::DBasicNeXusTree(
    const DBasicNeXusTree<image::ShmAllocator>&, const image::StdAllocator&);
template DBasicNeXusTree<image::ShmAllocator>::DBasicNeXusTree(
    const DBasicNeXusTree<image::StdAllocator>&, const image::ShmAllocator&);

} // namespace nexus
} // namespace norvexa

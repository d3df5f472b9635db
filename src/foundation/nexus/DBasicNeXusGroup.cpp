#include "foundation/nexus/DBasicNeXusGroup.h"

#include "foundation/DException.h"
#include "foundation/nexus/DBasicNeXusData.h"

namespace norvexa {
namespace nexus {

namespace {
void requireValidName(const std::string& name)
{
    if (name.empty() || name.find('/') != std::string::npos)
        throw DBadParameterException("Invalid NeXus name \"" + name + "\"");
}
} // namespace

template <class Allocator>
typename DBasicNeXusGroup<Allocator>::Node::NodePointer DBasicNeXusGroup<Allocator>::self() const
{
    return typename Node::NodePointer(const_cast<Node*>(static_cast<const Node*>(this)));
}

template <class Allocator>
DBasicNeXusGroup<Allocator>& DBasicNeXusGroup<Allocator>::addSubGroup(const std::string& name)
{
    auto found = this->_children.find(std::string_view(name));
    if (found != this->_children.end())
        return Node::raw(found->second)->asGroup();
    requireValidName(name);
    auto node = Node::create(this->_allocator, NeXusGroup, name, self());
    try {
        this->_children.emplace(Node::makeName(this->_allocator, name), node);
    } catch (...) {
        Node::destroy(node);
        throw;
    }
    return static_cast<DBasicNeXusGroup&>(*Node::raw(node));
}

template <class Allocator>
DBasicNeXusData<Allocator>& DBasicNeXusGroup<Allocator>::addDataset(const std::string& name,
                                                                    datatypes::Type type,
                                                                    unsigned long typeBits)
{
    auto found = this->_children.find(std::string_view(name));
    if (found != this->_children.end())
        return Node::raw(found->second)->asData();
    requireValidName(name);
    auto node = Node::create(this->_allocator, NeXusData, name, self());
    try {
        auto& data = static_cast<DBasicNeXusData<Allocator>&>(*Node::raw(node));
        data.data() = image::DBasicImage<Allocator>(this->_allocator, type, typeBits);
        this->_children.emplace(Node::makeName(this->_allocator, name), node);
        return data;
    } catch (...) {
        Node::destroy(node);
        throw;
    }
}

template <class Allocator>
DBasicNeXusData<Allocator>& DBasicNeXusGroup<Allocator>::addAttribute(const std::string& name,
                                                                      datatypes::Type type,
                                                                      unsigned long typeBits)
{
    return this->addAttributeNode(name, type, typeBits);
}

template <class Allocator>
DBasicNeXusData<Allocator>& DBasicNeXusGroup<Allocator>::dataset(const std::string& name)
{
    auto found = this->_children.find(std::string_view(name));
    if (found == this->_children.end() || Node::raw(found->second)->type() == NeXusGroup)
        throw DOutOfRangeException("No dataset \"" + name + "\" in \"" + this->path() + "\"");
    return static_cast<DBasicNeXusData<Allocator>&>(*Node::raw(found->second));
}

template <class Allocator>
const DBasicNeXusData<Allocator>& DBasicNeXusGroup<Allocator>::dataset(const std::string& name) const
{
    return const_cast<DBasicNeXusGroup*>(this)->dataset(name);
}

template <class Allocator>
std::vector<typename DBasicNeXusGroup<Allocator>::Node*>
DBasicNeXusGroup<Allocator>::children(bool recursive)
{
    std::vector<Node*> result;
    if (recursive) {
        for (auto it = ++begin(); it != end(); ++it)
            result.push_back(const_cast<Node*>(&*it));
    } else {
        result.reserve(this->_children.size());
        for (auto& entry : this->_children)
            result.push_back(Node::raw(entry.second));
    }
    return result;
}

template <class Allocator>
std::vector<const typename DBasicNeXusGroup<Allocator>::Node*>
DBasicNeXusGroup<Allocator>::children(bool recursive) const
{
    const auto all = const_cast<DBasicNeXusGroup*>(this)->children(recursive);
    return std::vector<const Node*>(all.begin(), all.end());
}

template <class Allocator>
void DBasicNeXusGroup<Allocator>::eraseChild(const std::string& name)
{
    const std::size_t slash = name.rfind('/');
    if (slash == std::string::npos) {
        this->eraseFrom(this->_children, name);
        return;
    }
    // A path: walk to the parent group without making anything.
    Node* parent = this;
    std::size_t begin = 0;
    while (begin < slash) {
        std::size_t end = name.find('/', begin);
        if (end > slash)
            end = slash;
        if (end > begin) {
            auto found = parent->_children.find(std::string_view(name).substr(begin, end - begin));
            if (found == parent->_children.end() || Node::raw(found->second)->type() != NeXusGroup)
                return;
            parent = Node::raw(found->second);
        }
        begin = end + 1;
    }
    parent->eraseFrom(parent->_children, std::string_view(name).substr(slash + 1));
}

template class DBasicNeXusGroup<image::StdAllocator>;
template class DBasicNeXusGroup<image::ShmAllocator>;

} // namespace nexus
} // namespace norvexa

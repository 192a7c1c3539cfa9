#include "nodeContent.hpp"

#include <algorithm>

namespace oru::configng::detail {

const PliConfigScalarValue& NodeContent::GetScalar() const {
    if (kind == PliConfigNodeKind::SCALAR) return scalar;
    throw PliConfigTypeError("Invalid access to scalar value, node type is not SCALAR", GetWhere());
}

const std::vector<const NodeContent*>& NodeContent::GetSequence() const {
    if (kind == PliConfigNodeKind::SEQUENCE) return children;
    throw PliConfigTypeError("Invalid access to sequence value, node type is not SEQUENCE", GetWhere());
}

const std::vector<const NodeContent*>& NodeContent::GetMap() const {
    if (kind == PliConfigNodeKind::MAP) return children;
    throw PliConfigTypeError("Invalid access to map value, node type is not MAP", GetWhere());
}

const NodeContent* NodeContent::FindMember(const std::string& name) const {
    const auto& members = GetMap();
    const auto found = std::find_if(members.begin(), members.end(),
                                    [&name](const NodeContent* member) { return member->key == name; });
    return found == members.end() ? nullptr : *found;
}

void NodeContent::MarkRead() const {
    is_read.store(true, std::memory_order_relaxed);
    for (const NodeContent* child : children) child->MarkRead();
}

std::string NodeContent::GetPath() const {
    if (parent == nullptr) return key;
    const bool is_element = parent->kind == PliConfigNodeKind::SEQUENCE;
    std::string step = is_element ? std::string{"["}.append(std::to_string(index)).append("]") : key;
    if (parent->parent == nullptr) return step;
    return parent->GetPath() + (is_element ? "" : ".") + step;
}

std::string NodeContent::GetWhere() const {
    return file == nullptr ? std::string{} : *file + ":" + std::to_string(line);
}

}  // namespace oru::configng::detail

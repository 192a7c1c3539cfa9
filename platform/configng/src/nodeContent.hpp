#pragma once

// The content of the nodes of one document. A TreeBuilder fills it; afterwards only the read marks change.
// Handles are shared pointers to a node that own the whole tree, so parents outlive their children.

#include <oru/configng/pliConfig.hpp>

#include <atomic>
#include <deque>
#include <string>
#include <vector>

namespace oru::configng::detail {

struct NodeContent {
    PliConfigNodeKind kind{PliConfigNodeKind::UNDEFINED};
    const NodeContent* parent{nullptr};
    std::string key;         // in a map; at the top the document's name
    unsigned long index{0};  // in the parent
    const std::string* file{nullptr};
    int line{0};
    PliConfigScalarValue scalar;
    std::vector<const NodeContent*> children;
    // Relaxed: marks are set and looked at during set-up, and each stands for itself.
    mutable std::atomic<bool> is_read{false};

    const PliConfigScalarValue& GetScalar() const;                 // PliConfigTypeError
    const std::vector<const NodeContent*>& GetSequence() const;    // PliConfigTypeError
    const std::vector<const NodeContent*>& GetMap() const;         // PliConfigTypeError
    const NodeContent* FindMember(const std::string& name) const;  // null if there is none; the first match
    void MarkRead() const;                                         // with all below it
    std::string GetPath() const;
    std::string GetWhere() const;
};

struct Tree {
    std::string name;
    std::deque<NodeContent> nodes;  // stable addresses; the top is the first
};

}  // namespace oru::configng::detail

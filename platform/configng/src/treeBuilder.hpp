#pragma once

// Turns the events of the YAML parser into a tree of nodes, and refuses what has no meaning in a
// configuration. One object a document, on the thread that reads it.

#include <yaml-cpp/eventhandler.h>
#include <yaml-cpp/mark.h>
#include <oru/configng/pliConfigDocument.hpp>

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "nodeContent.hpp"

namespace oru::configng::detail {

[[noreturn]] void ThrowDocumentError(const std::string& name, const YAML::Mark& mark,
                                     const std::string& text);

class TreeBuilder final : public YAML::EventHandler {
public:
    explicit TreeBuilder(const std::string& name);

    // The tree, once the parser has gone through the text.
    std::shared_ptr<const Tree> Finish() const;

    void OnDocumentStart(const YAML::Mark& mark) override;
    void OnDocumentEnd() override {}
    void OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) override;
    void OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) override;
    void OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                  const std::string& value) override;
    void OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                         YAML::EmitterStyle::value style) override;
    void OnSequenceEnd() override { Close(); }
    void OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                    YAML::EmitterStyle::value style) override;
    void OnMapEnd() override { Close(); }

private:
    struct Key {
        std::string text;
        int line;
    };
    // A sequence or map whose end has not come yet.
    struct OpenNode {
        NodeContent* node;
        YAML::anchor_t anchor;
        std::unordered_set<std::string> keys;  // of a map, so far
        std::optional<Key> key;                // of a map: the key whose value comes next
    };

    bool IsKeyNext() const;
    void TakeKey(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                 const std::string& text);
    void RefuseAsKey(const YAML::Mark& mark) const;
    NodeContent& Append(const YAML::Mark& mark, PliConfigNodeKind kind);
    NodeContent& NewChild(const YAML::Mark& mark, NodeContent& parent);
    void CopyContent(const YAML::Mark& mark, const NodeContent& from, NodeContent& to, std::size_t depth);
    void Open(const YAML::Mark& mark, PliConfigNodeKind kind, YAML::anchor_t anchor);
    void Close();
    void SetAnchor(YAML::anchor_t anchor, const NodeContent& node);

    std::shared_ptr<Tree> m_tree;
    std::vector<OpenNode> m_open;
    std::unordered_set<YAML::anchor_t> m_anchored_keys;
    // Complete nodes only: an alias inside the node that it names finds none.
    std::unordered_map<YAML::anchor_t, const NodeContent*> m_anchored;
};

}  // namespace oru::configng::detail

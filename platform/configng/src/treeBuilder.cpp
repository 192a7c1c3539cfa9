#include "treeBuilder.hpp"

#include <string_view>

namespace oru::configng::detail {

namespace {

constexpr std::string_view STANDARD_TAGS = "tag:yaml.org,2002:";

// The parser gives "?" to what is plain and "!" to what is quoted.
bool IsText(const std::string& tag) {
    return tag == "!" || tag == std::string{STANDARD_TAGS} + "str";
}

void CheckTag(const std::string& name, const YAML::Mark& mark, const std::string& tag) {
    if (tag.empty() || tag == "?" || tag == "!" || tag.starts_with(STANDARD_TAGS)) return;
    ThrowDocumentError(name, mark, "unknown tag \"" + tag + "\"");
}

}  // namespace

void ThrowDocumentError(const std::string& name, const YAML::Mark& mark, const std::string& text) {
    const std::string where = name + ":" + std::to_string(mark.line + 1);
    throw PliConfigDocumentError(where + ":" + std::to_string(mark.column + 1) + ": " + text, where);
}

TreeBuilder::TreeBuilder(const std::string& name) : m_tree{std::make_shared<Tree>()} {
    m_tree->name = name;
}

std::shared_ptr<const Tree> TreeBuilder::Finish() const {
    if (m_tree->nodes.empty() || m_tree->nodes.front().kind == PliConfigNodeKind::UNDEFINED) {
        throw PliConfigDocumentError(m_tree->name + ": the document is empty", m_tree->name);
    }
    const NodeContent& top = m_tree->nodes.front();
    if (top.kind != PliConfigNodeKind::MAP) {
        throw PliConfigDocumentError(top.GetWhere() + ": the top of the document is no map", top.GetWhere());
    }
    return m_tree;
}

void TreeBuilder::OnDocumentStart(const YAML::Mark& mark) {
    if (!m_tree->nodes.empty()) ThrowDocumentError(m_tree->name, mark, "a second document begins");
}

void TreeBuilder::OnNull(const YAML::Mark& mark, YAML::anchor_t anchor) {
    RefuseAsKey(mark);
    SetAnchor(anchor, Append(mark, PliConfigNodeKind::UNDEFINED));
}

void TreeBuilder::OnAlias(const YAML::Mark& mark, YAML::anchor_t anchor) {
    RefuseAsKey(mark);
    if (m_anchored_keys.contains(anchor)) ThrowDocumentError(m_tree->name, mark, "an alias that names a key");
    const auto found = m_anchored.find(anchor);
    if (found == m_anchored.end())
        ThrowDocumentError(m_tree->name, mark, "an alias inside the node that it names");
    NodeContent& copy = Append(mark, found->second->kind);
    CopyContent(mark, *found->second, copy, m_open.size());
}

void TreeBuilder::OnScalar(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                           const std::string& value) {
    CheckTag(m_tree->name, mark, tag);
    if (IsKeyNext()) return TakeKey(mark, tag, anchor, value);
    NodeContent& node = Append(mark, PliConfigNodeKind::SCALAR);
    node.scalar = {value, IsText(tag)};
    SetAnchor(anchor, node);
}

void TreeBuilder::OnSequenceStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                                  YAML::EmitterStyle::value /*style*/) {
    CheckTag(m_tree->name, mark, tag);
    Open(mark, PliConfigNodeKind::SEQUENCE, anchor);
}

void TreeBuilder::OnMapStart(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                             YAML::EmitterStyle::value /*style*/) {
    CheckTag(m_tree->name, mark, tag);
    Open(mark, PliConfigNodeKind::MAP, anchor);
}

bool TreeBuilder::IsKeyNext() const {
    return !m_open.empty() && m_open.back().node->kind == PliConfigNodeKind::MAP && !m_open.back().key;
}

void TreeBuilder::RefuseAsKey(const YAML::Mark& mark) const {
    if (IsKeyNext()) ThrowDocumentError(m_tree->name, mark, "a key must be text");
}

void TreeBuilder::TakeKey(const YAML::Mark& mark, const std::string& tag, YAML::anchor_t anchor,
                          const std::string& text) {
    if (text == "<<" && !IsText(tag)) ThrowDocumentError(m_tree->name, mark, "merge keys are not supported");
    OpenNode& map = m_open.back();
    if (!map.keys.insert(text).second) {
        ThrowDocumentError(m_tree->name, mark, "key \"" + text + "\" stands twice in " + map.node->GetPath());
    }
    if (anchor != YAML::NullAnchor) m_anchored_keys.insert(anchor);
    map.key = Key{text, mark.line + 1};
}

NodeContent& TreeBuilder::NewChild(const YAML::Mark& mark, NodeContent& parent) {
    if (m_tree->nodes.size() >= MAX_DOCUMENT_NODES) {
        ThrowDocumentError(m_tree->name, mark, "more than " + std::to_string(MAX_DOCUMENT_NODES) + " nodes");
    }
    NodeContent& node = m_tree->nodes.emplace_back();
    node.parent = &parent;
    node.index = parent.children.size();
    node.file = &m_tree->name;
    parent.children.push_back(&node);
    return node;
}

NodeContent& TreeBuilder::Append(const YAML::Mark& mark, PliConfigNodeKind kind) {
    if (m_open.empty()) {
        NodeContent& top = m_tree->nodes.emplace_back();
        top.kind = kind;
        top.key = m_tree->name;
        top.file = &m_tree->name;
        top.line = mark.line + 1;
        return top;
    }
    OpenNode& parent = m_open.back();
    NodeContent& node = NewChild(mark, *parent.node);
    node.kind = kind;
    node.line = parent.key ? parent.key->line : mark.line + 1;
    if (parent.key) node.key = std::move(parent.key->text);
    parent.key.reset();
    return node;
}

// The copy has paths of its own, and the lines of what it copies.
void TreeBuilder::CopyContent(const YAML::Mark& mark, const NodeContent& from, NodeContent& to,
                              std::size_t depth) {
    if (depth >= MAX_DOCUMENT_DEPTH) ThrowDocumentError(m_tree->name, mark, "aliases nest too deeply");
    to.scalar = from.scalar;
    for (const NodeContent* child : from.children) {
        NodeContent& copy = NewChild(mark, to);
        copy.kind = child->kind;
        copy.key = child->key;
        copy.line = child->line;
        CopyContent(mark, *child, copy, depth + 1);
    }
}

void TreeBuilder::Open(const YAML::Mark& mark, PliConfigNodeKind kind, YAML::anchor_t anchor) {
    RefuseAsKey(mark);
    if (m_open.size() >= MAX_DOCUMENT_DEPTH) {
        ThrowDocumentError(m_tree->name, mark,
                           "nested more than " + std::to_string(MAX_DOCUMENT_DEPTH) + " levels deep");
    }
    NodeContent& node = Append(mark, kind);
    m_open.push_back({&node, anchor, {}, {}});
}

void TreeBuilder::Close() {
    SetAnchor(m_open.back().anchor, *m_open.back().node);
    m_open.pop_back();
}

void TreeBuilder::SetAnchor(YAML::anchor_t anchor, const NodeContent& node) {
    if (anchor != YAML::NullAnchor) m_anchored[anchor] = &node;
}

}  // namespace oru::configng::detail

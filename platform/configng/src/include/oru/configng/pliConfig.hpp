#pragma once

// The configuration as the system reads it: a tree of immutable nodes, each a scalar, a sequence or a map.
// A PliConfigDocument makes it; constructors read it at set-up, on the controlling thread, and not later.
// A node is a handle on shared content: copies are cheap and keep the content alive without the document.
//
// A node notes that it was asked for by Has(), operator[] or an iteration, so that a host can tell which keys
// of a document nobody reads (see pliConfigDocument.hpp). A host that wants all faults of a document at once
// reads it under a review (see pliConfigReview.hpp).

#include <oru/configng/pliConfigError.hpp>
#include <oru/configng/pliConfigScalarValue.hpp>
#include <oru/experimental/datatypes/pliMatrix2D.hpp>

#include <concepts>
#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

namespace oru::configng {

namespace detail {
struct NodeContent;
}

enum class PliConfigNodeKind : int { UNDEFINED = 0, SCALAR = 1, SEQUENCE = 2, MAP = 3 };

// What a node is and where it stands, without access to the nodes below it.
class PliConfigInstanceNodeBase {
public:
    virtual PliConfigNodeKind GetKind() const;
    // Elements of a sequence or pairs of a map; PliConfigTypeError on other kinds.
    virtual unsigned long GetSize() const;
    virtual ~PliConfigInstanceNodeBase() = default;

    bool IsScalar() const { return GetKind() == PliConfigNodeKind::SCALAR; }
    bool IsSequence() const { return GetKind() == PliConfigNodeKind::SEQUENCE; }
    bool IsMap() const { return GetKind() == PliConfigNodeKind::MAP; }

    // Whether a map has the key, exact and case-sensitive; PliConfigTypeError on other kinds.
    bool Has(const std::string& key) const;
    // The keys of a map in the order of the document; PliConfigTypeError on other kinds.
    std::vector<std::string> Keys() const;
    // PliConfigTypeError unless the node is a scalar.
    const PliConfigScalarValue& GetScalar() const;

    // Counts the node and all below it as asked for, where nobody can tell whether they would have been.
    void PassOver() const;

    // From the top of the document, "cfg.m4.output[0].cpu": the node's name in all messages. The top itself
    // is named after its document.
    std::string GetPath() const;
    // Where the node's key stands, or its value if it is an element. Lines count from 1; 0 is "no document".
    const std::string& GetFile() const;
    int GetLine() const;
    std::string GetWhere() const;  // "vosk.yaml:12"

protected:
    using Content = std::shared_ptr<const detail::NodeContent>;

    PliConfigInstanceNodeBase();
    explicit PliConfigInstanceNodeBase(Content content) : m_content{std::move(content)} {}
    // A move copies: a node that was moved from still is that node.
    PliConfigInstanceNodeBase(const PliConfigInstanceNodeBase&) = default;
    PliConfigInstanceNodeBase& operator=(const PliConfigInstanceNodeBase&) = default;

    Content GetMember(const std::string& key) const;
    Content GetElement(unsigned long index) const;
    Content GetElement(long index) const;
    Content GetIterated(unsigned long index) const;
    void FailConversion(const std::type_info& type, const char* reason) const;

private:
    Content Handle(const detail::NodeContent& child) const;
    [[noreturn]] void ThrowNoElement(const std::string& index) const;

    Content m_content;  // never null; part of the document's tree, which it keeps alive
};

class PliConfigNodeIterator;

template <class T>
concept PliConfigIndex = std::integral<T> && !std::same_as<T, bool> && !std::same_as<T, char>;

template <class Base>
class PliConfigNode : public Base {
public:
    // A node of kind UNDEFINED that stands nowhere.
    PliConfigNode() = default;
    explicit PliConfigNode(std::shared_ptr<const detail::NodeContent> content) : Base{std::move(content)} {}

    // The member of a map or element of a sequence. PliConfigTypeError on other kinds, PliConfigNotFoundError
    // if there is none.
    PliConfigNode operator[](const std::string& key) const { return PliConfigNode{this->GetMember(key)}; }
    PliConfigNode operator[](const char* key) const { return PliConfigNode{this->GetMember(key)}; }
    // For any integer, so that a literal 0 is an index and not a null pointer.
    PliConfigNode operator[](PliConfigIndex auto index) const {
        using Widest = std::conditional_t<std::is_signed_v<decltype(index)>, long, unsigned long>;
        return PliConfigNode{this->GetElement(static_cast<Widest>(index))};
    }

    // The value as a scalar type or as PliMatrix2D<double>; PliConfigValueError tells node, type and reason.
    template <class T>
    T As() const;

    // Over the elements of a sequence or the values of a map; PliConfigIterationError on other kinds.
    PliConfigNodeIterator begin() const;
    PliConfigNodeIterator end() const;

private:
    friend class PliConfigNodeIterator;
};

using PliConfigInstanceNode = PliConfigNode<PliConfigInstanceNodeBase>;

class PliConfigNodeIterator {
public:
    using iterator_category = std::input_iterator_tag;
    using value_type = PliConfigInstanceNode;
    using difference_type = std::ptrdiff_t;
    using pointer = const PliConfigInstanceNode*;
    using reference = PliConfigInstanceNode;

    PliConfigNodeIterator(const PliConfigInstanceNode& node, bool is_end);

    PliConfigInstanceNode operator*() const;
    PliConfigNodeIterator& operator++();
    PliConfigNodeIterator operator++(int);
    // Only iterators of one node are comparable.
    bool operator==(const PliConfigNodeIterator& other) const noexcept { return m_index == other.m_index; }

private:
    PliConfigInstanceNode m_node;
    unsigned long m_index;
};

namespace util {

// Rows and columns of a sequence of sequences of one length; no value for anything else, with the reason in
// the log at DEBUG.
template <class T>
std::optional<std::pair<unsigned long, unsigned long>> IsActualMatrix(const T& node);

}  // namespace util
}  // namespace oru::configng

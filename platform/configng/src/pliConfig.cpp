#include <oru/configng/pliConfig.hpp>

#include <log4cplus/loggingmacros.h>

#include <boost/core/demangle.hpp>
#include <oru/configng/pliConfigReview.hpp>
#include <type_traits>

#include "nodeContent.hpp"

namespace oru::configng {

using Matrix = experimental::datatypes::PliMatrix2D<double>;

namespace {

// The library's own logger, below the host's root logger. In a program that set up no log, the text goes
// nowhere, without a complaint by the log library.
void LogDebug(const std::string& text) {
    static log4cplus::Logger logger = log4cplus::Logger::getInstance(LOG4CPLUS_TEXT("oru.configng"));
    if (logger.getAllAppenders().empty() && log4cplus::Logger::getRoot().getAllAppenders().empty()) return;
    if (logger.isEnabledFor(log4cplus::DEBUG_LOG_LEVEL)) logger.forcedLog(log4cplus::DEBUG_LOG_LEVEL, text);
}

template <class T>
T Convert(const PliConfigInstanceNode& node, std::type_identity<T> /*type*/) {
    if (!node.IsScalar()) throw PliConfigError("disallowed by converter");
    return node.GetScalar().As<T>();
}

Matrix Convert(const PliConfigInstanceNode& node, std::type_identity<Matrix> /*type*/) {
    const auto size = util::IsActualMatrix(node);
    if (!size) throw PliConfigError("disallowed by converter");
    Matrix matrix{size->first, size->second};
    for (unsigned long row = 0; row < size->first; ++row) {
        const auto elements = node[row];
        for (unsigned long column = 0; column < size->second; ++column) {
            matrix(row, column) = Convert(elements[column], std::type_identity<double>{});
        }
    }
    return matrix;
}

std::shared_ptr<const detail::NodeContent> Nowhere() {
    static const auto undefined = std::make_shared<const detail::NodeContent>();
    return undefined;
}

}  // namespace

PliConfigInstanceNodeBase::PliConfigInstanceNodeBase() : m_content{Nowhere()} {}

PliConfigNodeKind PliConfigInstanceNodeBase::GetKind() const {
    return m_content->kind;
}

unsigned long PliConfigInstanceNodeBase::GetSize() const {
    if (IsSequence() || IsMap()) return m_content->children.size();
    throw PliConfigTypeError("GetSize() not supported on non sequence/map nodes", GetWhere());
}

bool PliConfigInstanceNodeBase::Has(const std::string& key) const {
    if (!IsMap()) {
        throw PliConfigTypeError("Member existence by name is supported only on MAP nodes", GetWhere());
    }
    const auto* member = m_content->FindMember(key);
    if (member == nullptr) return false;
    member->is_read.store(true, std::memory_order_relaxed);
    return true;
}

std::vector<std::string> PliConfigInstanceNodeBase::Keys() const {
    std::vector<std::string> keys;
    for (const auto* member : m_content->GetMap()) keys.push_back(member->key);
    return keys;
}

const PliConfigScalarValue& PliConfigInstanceNodeBase::GetScalar() const {
    return m_content->GetScalar();
}

void PliConfigInstanceNodeBase::PassOver() const {
    m_content->MarkRead();
}

std::string PliConfigInstanceNodeBase::GetPath() const {
    return m_content->GetPath();
}

const std::string& PliConfigInstanceNodeBase::GetFile() const {
    static const std::string none;
    return m_content->file == nullptr ? none : *m_content->file;
}

int PliConfigInstanceNodeBase::GetLine() const {
    return m_content->line;
}

std::string PliConfigInstanceNodeBase::GetWhere() const {
    return m_content->GetWhere();
}

PliConfigInstanceNodeBase::Content PliConfigInstanceNodeBase::Handle(const detail::NodeContent& child) const {
    child.is_read.store(true, std::memory_order_relaxed);
    return {m_content, &child};
}

PliConfigInstanceNodeBase::Content PliConfigInstanceNodeBase::GetMember(const std::string& key) const {
    if (!IsMap()) {
        throw PliConfigTypeError("Member access by name not supported on non map nodes", GetWhere());
    }
    if (const auto* member = m_content->FindMember(key); member != nullptr) return Handle(*member);
    const std::string text = "Member " + key + " not defined in node " + GetPath();
    PliConfigReview* const review = PliConfigReview::Current();
    if (review == nullptr) throw PliConfigNotFoundError(text, GetWhere());
    review->AddProblem(PliConfigInstanceNode{m_content}, key, text);
    return Nowhere();
}

PliConfigInstanceNodeBase::Content PliConfigInstanceNodeBase::GetElement(unsigned long index) const {
    if (!IsSequence()) {
        throw PliConfigTypeError("Member access by index not supported on non sequence nodes", GetWhere());
    }
    const auto& elements = m_content->GetSequence();
    if (index < elements.size()) return Handle(*elements[index]);
    ThrowNoElement(std::to_string(index));
}

PliConfigInstanceNodeBase::Content PliConfigInstanceNodeBase::GetElement(long index) const {
    if (index < 0 && IsSequence()) ThrowNoElement(std::to_string(index));
    return GetElement(static_cast<unsigned long>(index));
}

void PliConfigInstanceNodeBase::ThrowNoElement(const std::string& index) const {
    throw PliConfigNotFoundError("Element with index " + index + " not defined in node " + GetPath(),
                                 GetWhere());
}

PliConfigInstanceNodeBase::Content PliConfigInstanceNodeBase::GetIterated(unsigned long index) const {
    if (!IsSequence() && !IsMap()) {
        throw PliConfigIterationError("Iteration over unsupported node type", GetWhere());
    }
    const auto& values = IsSequence() ? m_content->GetSequence() : m_content->GetMap();
    if (index >= values.size()) throw PliConfigIterationError("Iteration index out of range", GetWhere());
    return Handle(*values[index]);
}

void PliConfigInstanceNodeBase::FailConversion(const std::type_info& type, const char* reason) const {
    const std::string text = "Data type conversion to " + boost::core::demangle(type.name()) + " for node " +
                             GetPath() + " failed, reason: " + reason;
    PliConfigReview* const review = PliConfigReview::Current();
    if (review == nullptr) throw PliConfigValueError(text, GetWhere());
    review->AddProblem(PliConfigInstanceNode{m_content}, text);
}

template <class Base>
template <class T>
T PliConfigNode<Base>::As() const {
    try {
        return Convert(*this, std::type_identity<T>{});
    } catch (const std::exception& error) {
        this->FailConversion(typeid(T), error.what());
        return T{};
    }
}

template <class Base>
PliConfigNodeIterator PliConfigNode<Base>::begin() const {
    return {*this, false};
}

template <class Base>
PliConfigNodeIterator PliConfigNode<Base>::end() const {
    return {*this, true};
}

template class PliConfigNode<PliConfigInstanceNodeBase>;
template bool PliConfigInstanceNode::As<bool>() const;
template int PliConfigInstanceNode::As<int>() const;
template unsigned char PliConfigInstanceNode::As<unsigned char>() const;
template unsigned short PliConfigInstanceNode::As<unsigned short>() const;
template unsigned int PliConfigInstanceNode::As<unsigned int>() const;
template unsigned long PliConfigInstanceNode::As<unsigned long>() const;
template float PliConfigInstanceNode::As<float>() const;
template double PliConfigInstanceNode::As<double>() const;
template std::string PliConfigInstanceNode::As<std::string>() const;
template Matrix PliConfigInstanceNode::As<Matrix>() const;

PliConfigNodeIterator::PliConfigNodeIterator(const PliConfigInstanceNode& node, bool is_end)
    : m_node{node}, m_index{0} {
    if (!node.IsSequence() && !node.IsMap()) {
        throw PliConfigIterationError("Iteration over scalar/undefined nodes is not allowed",
                                      node.GetWhere());
    }
    if (is_end) m_index = node.GetSize();
}

PliConfigInstanceNode PliConfigNodeIterator::operator*() const {
    if (m_index == m_node.GetSize()) {
        throw PliConfigIterationError("Iteration was already completed", m_node.GetWhere());
    }
    return PliConfigInstanceNode{m_node.GetIterated(m_index)};
}

PliConfigNodeIterator& PliConfigNodeIterator::operator++() {
    if (m_index == m_node.GetSize()) {
        throw PliConfigIterationError("Iteration was already completed", m_node.GetWhere());
    }
    ++m_index;
    return *this;
}

PliConfigNodeIterator PliConfigNodeIterator::operator++(int) {
    PliConfigNodeIterator before{*this};
    ++*this;
    return before;
}

namespace util {

template <class T>
std::optional<std::pair<unsigned long, unsigned long>> IsActualMatrix(const T& node) {
    if (!node.IsSequence()) return std::nullopt;
    const unsigned long rows = node.GetSize();
    if (rows == 0) {
        LogDebug("IsActualMatrix: dimensions are zero");
        return std::pair{0UL, 0UL};
    }
    unsigned long columns = 0;
    unsigned long number = 0;
    for (const auto& row : node) {
        ++number;
        if (!row.IsSequence()) {
            LogDebug("IsActualMatrix: Member row is not a sequence ( it is " +
                     std::to_string(static_cast<int>(row.GetKind())));
            return std::nullopt;
        }
        if (number == 1) columns = row.GetSize();
        if (row.GetSize() != columns) {
            LogDebug("IsActualMatrix: Member row " + std::to_string(number) + " has incorrect size " +
                     std::to_string(row.GetSize()) + " expected: " + std::to_string(columns));
            return std::nullopt;
        }
    }
    return std::pair{rows, columns};
}

template std::optional<std::pair<unsigned long, unsigned long>> IsActualMatrix(const PliConfigInstanceNode&);

}  // namespace util
}  // namespace oru::configng

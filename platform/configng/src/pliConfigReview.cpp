#include <oru/configng/pliConfigReview.hpp>

#include <algorithm>
#include <exception>
#include <utility>

namespace oru::configng {

namespace {

thread_local PliConfigReview* current = nullptr;

std::string OnOneLine(std::string text) {
    while (text.ends_with('\n')) text.pop_back();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

PliConfigFinding OfKey(const PliConfigInstanceNode& node, const std::string& key, const std::string& text) {
    const bool is_there = node.IsMap() && node.Has(key);
    return {is_there ? node[key].GetWhere() : node.GetWhere(), node.GetPath() + "." + key, text};
}

}  // namespace

PliConfigReview::PliConfigReview() : m_outer{std::exchange(current, this)} {}

PliConfigReview::~PliConfigReview() {
    current = m_outer;
}

PliConfigReview* PliConfigReview::Current() noexcept {
    return current;
}

void PliConfigReview::AddProblem(const PliConfigInstanceNode& node, const std::string& text) {
    ++m_faults;
    Add({node.GetWhere(), node.GetPath(), text});
}

void PliConfigReview::AddWarning(const PliConfigInstanceNode& node, const std::string& text) {
    Add({node.GetWhere(), node.GetPath(), text, true});
}

void PliConfigReview::AddProblem(const PliConfigInstanceNode& node, const std::string& key,
                                 const std::string& text) {
    ++m_faults;
    PliConfigFinding problem = OfKey(node, key, text);
    if (!HasProblemAt(problem.path)) Add(std::move(problem));
}

void PliConfigReview::AddWarning(const PliConfigInstanceNode& node, const std::string& key,
                                 const std::string& text) {
    PliConfigFinding warning = OfKey(node, key, text);
    warning.is_warning = true;
    if (!HasProblemAt(warning.path)) Add(std::move(warning));
}

void PliConfigReview::AddWarning(const std::string& text) {
    AddWarning(m_place, text);
}

void PliConfigReview::Try(const PliConfigInstanceNode& node, const std::function<void()>& step) {
    const PliConfigInstanceNode outer_place = std::exchange(m_place, node);
    const std::size_t faults_before = m_faults;
    try {
        step();
    } catch (const std::exception& error) {
        const auto* const placed = dynamic_cast<const PliConfigError*>(&error);
        const bool has_place = placed != nullptr && !placed->Where().empty();
        const std::string where = has_place ? placed->Where() : node.GetWhere();
        if (m_faults == faults_before && !HasProblemAt(node.GetPath()))
            Add({where, node.GetPath(), error.what()});
        ++m_faults;
        node.PassOver();
    }
    m_place = outer_place;
}

bool PliConfigReview::HasProblemAt(const std::string& path) const {
    return std::any_of(m_findings.begin(), m_findings.end(), [&path](const PliConfigFinding& finding) {
        return !finding.is_warning && finding.path == path;
    });
}

void PliConfigReview::Add(PliConfigFinding finding) {
    finding.text = OnOneLine(finding.text);
    if (finding.where.empty() || std::find(m_findings.begin(), m_findings.end(), finding) != m_findings.end())
        return;
    m_findings.push_back(std::move(finding));
}

void Attempt(const PliConfigInstanceNode& node, const std::function<void()>& step) {
    if (current != nullptr) return current->Try(node, step);
    step();
}

}  // namespace oru::configng

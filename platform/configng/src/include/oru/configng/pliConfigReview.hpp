#pragma once

// For a host that wants to know all that is wrong with a document. A run ends with the first fault. Set-up
// code is the same for both: without a review its errors are exceptions.

#include <oru/configng/pliConfig.hpp>

#include <functional>
#include <string>
#include <vector>

namespace oru::configng {

struct PliConfigFinding {
    std::string where;        // "vosk.yaml:12"
    std::string path;         // "cfg.m4.output[0].cpu"
    std::string text;         // on one line
    bool is_warning = false;  // else a problem, with which there is no run

    friend bool operator==(const PliConfigFinding&, const PliConfigFinding&) = default;
};

// While one lives, its thread goes on behind a fault. A member that is absent and a value that can't be
// converted are noted and read as 0, false or "", which a document could hold as well; a step under Attempt()
// that throws is noted and left. An object made meanwhile may lack parts and is only good to be destroyed.
class PliConfigReview {
public:
    PliConfigReview();
    ~PliConfigReview();
    PliConfigReview(const PliConfigReview&) = delete;
    PliConfigReview& operator=(const PliConfigReview&) = delete;

    // Of this thread; null in a run.
    static PliConfigReview* Current() noexcept;

    // A finding is noted once, and none at a node that stands nowhere: its absence has been noted.
    void AddProblem(const PliConfigInstanceNode& node, const std::string& text);
    void AddWarning(const PliConfigInstanceNode& node, const std::string& text);
    // Of a key of the map `node`, present or not. Only the first problem of a key is noted, and no warning
    // behind it.
    void AddProblem(const PliConfigInstanceNode& node, const std::string& key, const std::string& text);
    void AddWarning(const PliConfigInstanceNode& node, const std::string& key, const std::string& text);
    // At the node whose step is being attempted.
    void AddWarning(const std::string& text);

    // In the order in which they were found.
    const std::vector<PliConfigFinding>& Findings() const noexcept { return m_findings; }

private:
    friend void Attempt(const PliConfigInstanceNode& node, const std::function<void()>& step);

    void Try(const PliConfigInstanceNode& node, const std::function<void()>& step);
    bool HasProblemAt(const std::string& path) const;
    void Add(PliConfigFinding finding);

    PliConfigReview* m_outer;
    PliConfigInstanceNode m_place;
    std::size_t m_faults = 0;  // problems met, noted or known already
    std::vector<PliConfigFinding> m_findings;
};

// Runs the step, which reads `node` or makes what it describes. In a run its exceptions pass. Under a review
// one is noted at the node, unless the node has a problem already, or the step has noted faults that explain
// it. Keys below the node then count as read: the step may not have come to them.
void Attempt(const PliConfigInstanceNode& node, const std::function<void()>& step);

}  // namespace oru::configng

#pragma once

// Tells how a run goes: one line that keeps changing where somebody looks at a terminal, a plain line a
// second elsewhere. Used by the driver of the run.

#include <string>

namespace vosk::rig {

struct ProgressFigures {
    double time = 0.0;  // seconds after the first command
    double duration = 0.0;
    std::string mode;
    std::string source;
    std::string peers;  // in their words
};

std::string FormatProgress(const ProgressFigures& figures);

class Progress {
public:
    Progress();

    // Whether it is time to show new figures; `time` in seconds after the first command.
    bool IsDue(double time) const { return time >= m_next; }
    void Show(const ProgressFigures& figures);
    // A line that stays.
    void Say(const std::string& line);
    // The changing line is over.
    void Close();

private:
    bool m_terminal;
    bool m_line_open = false;
    double m_next = 0.0;  // seconds after the first command
};

}  // namespace vosk::rig

#pragma once

// How a thread is to run, and how the system lets it.

#include <string>

namespace vosk::common {

struct ThreadPlacement {
    int cpu;  // -1 for none
    bool busy;
    int priority;        // SCHED_FIFO, 0 for an ordinary thread
    int priority_given;  // by the system, at the last start
};

struct ThreadState {
    std::string name;
    ThreadPlacement placement;
};

}  // namespace vosk::common

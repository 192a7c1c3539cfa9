#pragma once

// Where log lines go and from which level on. The host calls SetupLogging() once, before it starts threads;
// without that, WARN and above go to stderr. All loggers of the process, those of the platform layers too,
// leave by the same bounded buffer, which one thread of its own empties: a writer copies its line and goes
// on, whatever the disk or the terminal does. When the buffer is full the line is dropped and counted. The
// buffer is emptied at exit, except into an output that takes nothing for 2 s.

#include <log4cplus/loglevel.h>

#include <cstdint>
#include <string>

namespace vosk::common {

// Appends to the file, or writes to stderr if it is empty. May be called again; what was logged before goes
// to the former place. Throws std::runtime_error if the file cannot be opened; a pipe that nobody reads
// cannot be.
void SetupLogging(log4cplus::LogLevel level, const std::string& file = {});

// Blocks until every line logged so far has been written or given up, as happens when the output takes
// nothing for 2 s. For set-up, shut-down and tests.
void FlushLog();

// Lines lost since the process started, to a full buffer, a write that failed or an output that was given up.
std::uint64_t DroppedLogLines() noexcept;

}  // namespace vosk::common

#pragma once

// Where log lines go and from which level on. The host calls SetupLogging() once, before it starts threads;
// without that, WARN and above go to stderr. All loggers of the process, those of the platform layers too,
// leave by the same bounded buffer, which one thread of its own empties: a writer copies its line and goes
// on, whatever the disk or the terminal does. When the buffer is full the line is dropped and counted. The
// buffer is emptied at exit.

#include <log4cplus/loglevel.h>

#include <cstdint>
#include <string>

namespace vosk::common {

// Appends to the file, or writes to stderr if it is empty. May be called again; what was logged before goes
// to the former place. Throws std::runtime_error if the file cannot be opened.
void SetupLogging(log4cplus::LogLevel level, const std::string& file = {});

// Blocks until every line logged so far has been written or given up. For set-up, shut-down and tests.
void FlushLog();

// Lines lost since the process started, to a full buffer or a write that failed.
std::uint64_t DroppedLogLines() noexcept;

}  // namespace vosk::common

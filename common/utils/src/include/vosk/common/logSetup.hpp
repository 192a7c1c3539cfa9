#pragma once

// Where log lines go and from which level on. The host calls SetupLogging() once, before it starts threads;
// without that, WARN and above go to stderr. All loggers of the process, those of the platform layers too,
// leave by the same bounded buffer, which one thread of its own empties: a writer copies its line and goes
// on, whatever the disk or the terminal does. When the buffer is full, or the output takes nothing for half a
// second, lines are dropped and counted.

#include <log4cplus/loglevel.h>

#include <cstdint>
#include <string>

namespace vosk::common {

// For the start of main(): nothing else is ever to get the number of a standard descriptor that is closed. An
// output that is closed goes where the other one does, so that neither the log nor the reason of a failure is
// lost.
void OpenStandardDescriptors();

// Appends to the file, or writes to stderr if it is empty. May be called again; what was logged before goes
// to the former place. Throws std::runtime_error if the file cannot be opened; a pipe that nobody reads
// cannot be.
void SetupLogging(log4cplus::LogLevel level, const std::string& file = {});

// Opens the file once more by its name, after a rotation has renamed it. Throws as SetupLogging(), and what
// is logged then goes on to the former place.
void ReopenLog();

// From now on, of a warning or an error that comes again with other numbers, one line a second is written,
// with its count. Call it when the threads run: the warnings of set-up are worth reading one by one.
void LimitRepeatedLines() noexcept;

// Blocks until every line logged so far has been written or dropped. For set-up, shut-down and tests.
void FlushLog();

// Lines lost since the process started, to a full buffer, a write that failed or an output that took nothing.
std::uint64_t DroppedLogLines() noexcept;

}  // namespace vosk::common

#pragma once

// The other end of the control socket: "vosk-host ctl".

#include <string>

namespace vosk::host {

// Sends the line to the host that listens at the path, and returns its reply without its end. Waits for it as
// long as the host lives. std::runtime_error if nobody listens or the host goes without a reply.
std::string Ask(const std::string& path, const std::string& line);

}  // namespace vosk::host

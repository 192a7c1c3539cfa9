#pragma once

// The commands of the control socket and the terminal: one line each way. A reply is "ok", "error: <text>",
// or what was asked for. Works on the control thread.

#include <vosk/defs/controlMode.hpp>

#include <optional>
#include <string>

namespace vosk::host {

// What the commands act on.
class ControlTarget {
public:
    virtual ~ControlTarget() = default;

    virtual void SetMode(defs::VoskControlMode mode, std::optional<defs::Camera> camera) = 0;
    virtual void SetCamera(defs::Camera camera) = 0;
    virtual std::string Status() = 0;  // one line
    virtual void Stop() = 0;
};

// Carries out one line, of any bytes, and returns its reply, one line without its end. An empty line has an
// empty reply, which isn't sent. What a command throws becomes an "error: " reply.
std::string Execute(const std::string& line, ControlTarget& target);

}  // namespace vosk::host

#pragma once

// The commands of the control socket and the terminal: one line each way. A reply is "ok", "error: <text>",
// or what was asked for. Works on the control thread.

#include <lumolib/cOptions.hpp>
#include <vosk/defs/controlMode.hpp>

#include <optional>
#include <string>

namespace vosk::host {

// Of the imaging cameras, in whole pixels.
struct ReferenceBox {
    unsigned ref_x = 0;
    unsigned ref_y = 0;
    unsigned box_x = 0;
    unsigned box_y = 0;
};

// What the commands act on.
class ControlTarget {
public:
    virtual ~ControlTarget() = default;

    virtual void SetMode(defs::VoskControlMode mode, std::optional<defs::Camera> camera) = 0;
    virtual void SetCamera(defs::Camera camera) = 0;
    // These four are of the imaging cameras. To set throws unless a camera takes the value; to get throws
    // where there is no camera.
    virtual void SetReference(const ReferenceBox& reference) = 0;
    virtual ReferenceBox GetReference() = 0;
    virtual void SetCentroiding(const lumo::COptions& options) = 0;
    virtual lumo::COptions GetCentroiding() = 0;
    virtual void SetCentering(bool enabled) = 0;  // of the guide probes
    virtual bool GetCentering() = 0;
    virtual std::string Status() = 0;  // one line
    virtual void Stop() = 0;
};

// Carries out one line, of any bytes, and returns its reply, one line without its end. An empty line has an
// empty reply, which isn't sent. What a command throws becomes an "error: " reply.
std::string Execute(const std::string& line, ControlTarget& target);

}  // namespace vosk::host

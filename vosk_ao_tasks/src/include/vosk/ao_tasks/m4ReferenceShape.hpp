#pragma once

// The shape around which the commands of an AO source are expressed: added to every outgoing M4 command,
// taken out of every applied answer. Zero until a handover replaces it by the shape that M4 has at that
// moment, so that the new source continues from there. Owned by Executor and used on its thread.

#include <vosk/defs/sizes.hpp>

#include <array>
#include <shared_mutex>
#include <span>

namespace vosk::ao_tasks {

class M4ReferenceShape {
public:
    M4ReferenceShape();

    // values[i] += scale * shape[i], as far as both reach. Takes no lock: on the executor's thread only.
    void ApplyRefShape(float scale, std::span<float> values) const;

    // Replaces the shape; the former one is forgotten. Takes m_mutex exclusively.
    void UpdateRefShape(std::span<const float, defs::M4_CMD_SIZE> shape);

private:
    alignas(64) std::array<float, defs::M4_CMD_SIZE> m_ref_shape{};
    std::shared_mutex m_mutex;  // held exclusively while m_ref_shape is replaced
};

}  // namespace vosk::ao_tasks

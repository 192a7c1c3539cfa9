#include <spdlog/spdlog.h>
#include <vosk/ao_tasks/m4ReferenceShape.hpp>
#include <vosk/common/math/blas.hpp>

#include <algorithm>
#include <mutex>

namespace vosk::ao_tasks {

M4ReferenceShape::M4ReferenceShape() {
    spdlog::trace("M4 Reference Shape block: no parameters");
}

void M4ReferenceShape::ApplyRefShape(float scale, std::span<float> values) const {
    const auto reach = std::min(values.size(), m_ref_shape.size());
    common::math::cblas_AddVectors(scale, std::span{m_ref_shape}.first(reach), values.first(reach));
}

void M4ReferenceShape::UpdateRefShape(std::span<const float, defs::M4_CMD_SIZE> shape) {
    const std::unique_lock lock{m_mutex};
    std::copy(shape.begin(), shape.end(), m_ref_shape.begin());
    spdlog::trace("M4 Reference Shape block: updated reference shape");
}

}  // namespace vosk::ao_tasks

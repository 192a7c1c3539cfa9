#include <nodepin/numaPlacement.hpp>

#include <utility>

namespace nodepin {

bool NumaPlacement::BindTo(int cpu) noexcept {
    const auto node = GetNodeOfCpu(cpu);
    if (!node) return false;
    m_policies.cpu_affinity = CpuAffinity::MakeBindCpu(cpu);
    m_policies.mem_policy = MemPolicy::MakeBindNode(*node);
    return true;
}

std::error_code NumaPlacement::ProvideBuffer(std::size_t size, FreeFailed on_free_failed) {
    std::error_code error;
    m_buffer = {Allocate(size, m_policies.mem_policy.value(), error),
                [size, report = std::move(on_free_failed)](void* buffer) {
                    std::error_code free_error;
                    Free(buffer, size, free_error);
                    if (free_error && report) report(free_error);
                }};
    if (!error) error = MemLock(m_buffer.get(), size);
    if (!error) {
        m_memory_resource = std::make_unique<std::pmr::monotonic_buffer_resource>(
            m_buffer.get(), size, std::pmr::get_default_resource());
    }
    return error;
}

}  // namespace nodepin

#pragma once

// Where a thread and its memory stand: bound to a CPU and to the NUMA node of that CPU, with a locked buffer
// on the node. The owner of a thread makes one at set-up, before the thread, and keeps it for as long as
// anything lives in the buffer. It logs nothing: each owner has words of its own.

#include <nodepin/nodepin.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <memory_resource>
#include <system_error>

namespace nodepin {

class NumaPlacement {
public:
    // Called with the error when the system does not take the buffer back. Must not throw.
    using FreeFailed = std::function<void(const std::error_code&)>;

    // False, with nothing bound, if the node of the CPU is not known: always so without NUMA and for a
    // negative CPU.
    bool BindTo(int cpu) noexcept;

    // After BindTo() gave true, once: memory on the node, locked, and an arena over it. On an error there is
    // no arena.
    std::error_code ProvideBuffer(std::size_t size, FreeFailed on_free_failed = {});

    void SetPriority(int priority) noexcept { m_policies.priority = priority; }

    const NumaPolicies& Policies() const noexcept { return m_policies; }
    // Null without a buffer. It gives nothing back, and goes to the default resource when it is full.
    std::pmr::monotonic_buffer_resource* MemoryResource() const noexcept { return m_memory_resource.get(); }

private:
    NumaPolicies m_policies;
    std::unique_ptr<void, std::function<void(void*)>> m_buffer;
    std::unique_ptr<std::pmr::monotonic_buffer_resource> m_memory_resource;  // over m_buffer
};

}  // namespace nodepin

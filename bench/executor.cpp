// One pass of the executor (steps 0 to 4a) against the time that its matrix takes to stream by, once and
// twice: the two projections of a pass are bound to read it, and a plain form reads it twice.

#include "bench.hpp"

#include <cblas.h>
#include <fmt/format.h>

#include <vosk/ao_tasks/executor.hpp>
#include <vosk/defs/controlMode.hpp>
#include <vosk/defs/sizes.hpp>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>
#include <span>
#include <utility>
#include <vector>

namespace vosk::bench {

namespace {

using ao_tasks::CommandAssembly;
using ao_tasks::Executor;
using ao_tasks::M4SaturationManagement;

// An executor in the middle of its work: a binding velocity, an answer to each setpoint.
class Pass {
public:
    Pass(std::uint32_t managed_modes, const std::vector<float>& m2p)
        : m_executor{std::make_unique<Executor>(
              CommandAssembly::Config{defs::GPAO_CMD_SIZE},
              M4SaturationManagement::Config{true, managed_modes, m2p, 0.5F, 1e3F})} {
        for (std::size_t i = 0; i < m_command.size(); ++i) m_command[i] = static_cast<float>(i % 13) - 6.0F;
    }

    void Run() {
        std::shared_lock u4_lock{m_u4_mutex, std::defer_lock};
        std::shared_lock gpao_lock{m_gpao_mutex, std::defer_lock};
        m_executor->Step0_SetControlMode(defs::VoskControlMode::HIGH_ORDER_CASCADE);
        m_executor->Step1_CommandSplitting(std::span<const float, defs::WAVEFRONT_CMD_SIZE>{m_command});
        m_executor->Step2_CommandAssembly(u4_lock, gpao_lock, m_u4_fs_tt,
                                          std::span<const float, defs::INS_CMD_SIZE>{m_gpao});
        m_executor->Step4a_ProcessM4SetpointAppliedData(m_executor->Step3_ProcessM4SetpointData());
    }

private:
    std::unique_ptr<Executor> m_executor;
    std::vector<float> m_command = std::vector<float>(defs::WAVEFRONT_CMD_SIZE);
    std::vector<float> m_gpao = std::vector<float>(defs::INS_CMD_SIZE, 0.5F);
    Executor::TipTilt m_u4_fs_tt{};
    std::shared_mutex m_u4_mutex;
    std::shared_mutex m_gpao_mutex;
};

std::vector<Row> BenchPass(std::uint32_t managed_modes, std::size_t repeats) {
    std::mt19937 engine{managed_modes};
    std::normal_distribution<float> normal;
    std::vector<float> m2p(defs::M4_CMD_SIZE * managed_modes);
    for (float& value : m2p) value = normal(engine);
    Pass pass{managed_modes, m2p};

    const auto stream = [&] { Stream(m2p); };
    std::vector<double> ours;
    std::vector<double> once;
    std::vector<double> twice;
    // Ours and what it is compared with take turns; each starts, as in a running system, after its own last
    // turn was a while ago but its data is as near as the caches keep it: one turn unmeasured, one measured.
    const auto measure = [](std::vector<double>& times, auto&& work) {
        work();
        times.push_back(TimeUs(work));
    };
    for (std::size_t i = 0; i < repeats; ++i) {
        measure(ours, [&] { pass.Run(); });
        measure(once, stream);
        measure(twice, [&] {
            stream();
            stream();
        });
    }
    const auto what =
        fmt::format("executor pass, managed_modes {} ({})", managed_modes, openblas_get_corename());
    const double median = Percentile(ours, 0.5);
    return {{what, "streaming the matrix once", "us", median, Percentile(once, 0.5)},
            {what, "streaming the matrix twice", "us", median, Percentile(twice, 0.5)}};
}

}  // namespace

std::vector<Row> BenchExecutor() {
    openblas_set_num_threads(1);
    std::vector<Row> rows;
    for (const auto& [managed_modes, repeats] : std::vector<std::pair<std::uint32_t, std::size_t>>{
             {52, 1000}, {500, 300}, {1000, 150}, {4866, 25}}) {
        for (Row& row : BenchPass(managed_modes, repeats)) rows.push_back(std::move(row));
    }
    return rows;
}

}  // namespace vosk::bench

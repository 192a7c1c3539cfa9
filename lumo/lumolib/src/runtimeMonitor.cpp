#include <lumolib/runtimeMonitor.hpp>

#include <lumolib/utilities.hpp>
#include <vosk/common/assert.hpp>
#include <vosk/common/logger.hpp>

#include <chrono>
#include <exception>

namespace vosk::lumo {

namespace {

using oru::configng::PliConfigInstanceNode;

// Makes an object and appends it to the list of its kind.
template <class T, class Base, class Id>
std::shared_ptr<T> Append(std::vector<std::shared_ptr<Base>>& list, Id id) {
    auto object = std::make_shared<T>(id);
    list.push_back(object);
    return object;
}

}  // namespace

RuntimeMonitor::RuntimeMonitor()
    : m_performance_data(std::make_shared<PerformanceData>()),
      m_state_data(std::make_shared<StateData>()),
      m_command_counts(std::make_shared<CommandCounts>()) {}

RuntimeMonitor& RuntimeMonitor::GetInstance() {
    static RuntimeMonitor instance;
    return instance;
}

RuntimeMonitor& RuntimeMonitor::CreateInstance(const gim::Config& /*config*/) {
    auto& self = GetInstance();
    self.m_performance_data = std::make_shared<PerformanceData>();
    self.m_state_data = std::make_shared<StateData>();
    self.m_command_counts = std::make_shared<CommandCounts>();
    self.MakeStatistics();
    self.MakeStreamStates();
    self.Reset();
    return self;
}

// The two sensors of a guide probe share its number.
void RuntimeMonitor::MakeStatistics() {
    const auto camera = [this](unsigned long id) { return Append<Statistics>(m_statistics, id); };
    const auto buffered = [this](unsigned long id) { return Append<StatisticsBuffered>(m_statistics, id); };

    m_img_gp1_statistics = camera(1);
    m_wfs_gp1_statistics = camera(1);
    m_img_gp2_statistics = camera(2);
    m_wfs_gp2_statistics = camera(2);
    m_img_gp3_statistics = camera(3);
    m_wfs_gp3_statistics = camera(3);
    m_img_pds_statistics = camera(4);
    m_wfs_pds_statistics = camera(4);
    m_fs_statistics = buffered(16);
    m_m4_statistics = buffered(10);
    m_m5_statistics = buffered(11);
    m_pfs_statistics = buffered(12);
    m_ms_statistics = buffered(13);
    m_ao_statistics = buffered(14);
    m_ecmwf_statistics = buffered(15);
}

void RuntimeMonitor::MakeStreamStates() {
    using enum DataStreamIdentifier;
    const auto input = [this](DataStreamIdentifier id) {
        return Append<InputStreamState>(m_stream_states, id);
    };
    const auto output = [this](DataStreamIdentifier id) {
        return Append<OutputStreamState>(m_stream_states, id);
    };

    m_img_gp1_state = input(IMG_GP1);
    m_wfs_gp1_state = input(WFS_GP1);
    m_img_gp2_state = input(IMG_GP2);
    m_wfs_gp2_state = input(WFS_GP2);
    m_img_gp3_state = input(IMG_GP3);
    m_wfs_gp3_state = input(WFS_GP3);
    m_img_pds_state = input(IMG_PDS);
    m_wfs_pds_state = input(WFS_PDS);
    m_ao_wavefront_cmd_state = input(AO_WAVEFRONT_CMD_INPUT);
    m_m4_input_state = input(M4_INPUT);
    m_m5_input_state = input(M5_INPUT);
    m_pfs_input_state = input(PFS_INPUT);
    m_ecmwf_input_state = input(ECMWF_SIM_INPUT);
    m_ao_output_state = output(AO_OUTPUT);
    m_m4_output_state = output(M4_OUTPUT);
    m_m5_output_state = output(M5_OUTPUT);
    m_ms_output_state = output(MS_OUTPUT);
    m_fs_input_state = output(FS_INPUT);
    m_fs_output_state = output(FS_OUTPUT);
    m_pfs_output_state = output(PFS_OUTPUT);
}

std::map<std::string, std::shared_ptr<Statistics>> RuntimeMonitor::StatisticsByName() const {
    return {{"img_gp1", m_img_gp1_statistics}, {"wfs_gp1", m_wfs_gp1_statistics},
            {"img_gp2", m_img_gp2_statistics}, {"wfs_gp2", m_wfs_gp2_statistics},
            {"img_gp3", m_img_gp3_statistics}, {"wfs_gp3", m_wfs_gp3_statistics},
            {"img_pds", m_img_pds_statistics}, {"wfs_pds", m_wfs_pds_statistics},
            {"fs", m_fs_statistics},           {"m4", m_m4_statistics},
            {"m5", m_m5_statistics},           {"pfs", m_pfs_statistics},
            {"ms", m_ms_statistics},           {"ao", m_ao_statistics},
            {"ecmwf", m_ecmwf_statistics}};
}

void RuntimeMonitor::EnableStatistics(const PliConfigInstanceNode& cfg) {
    if (!cfg.IsMap() || !IsGiven(cfg, "statistics")) return;
    const auto periods = cfg["statistics"];
    oru::configng::Attempt(periods, [&] {
        for (const auto& name : periods.Keys()) {
            const auto period = periods[name];
            oru::configng::Attempt(period, [&] { EnableStatisticsOf(name, period); });
        }
    });
}

void RuntimeMonitor::EnableStatisticsOf(const std::string& name, const PliConfigInstanceNode& period) {
    const auto by_name = GetInstance().StatisticsByName();
    const auto found = by_name.find(name);
    if (found == by_name.end())
        common::LogAndThrow("ERR: " + period.GetWhere() + ": no stream statistics " + name);
    VOSK_ASSERT(found->second);
    try {
        found->second->Enable(ParseDuration<std::chrono::nanoseconds>(period.As<std::string>()));
    } catch (const std::exception& error) {
        common::LogAndThrow("ERR: " + period.GetWhere() + ": statistics of " + name + ": " + error.what());
    }
}

void RuntimeMonitor::Reset() {
    for (const auto& state : m_stream_states) state->Reset();
    m_performance_data->Reset();
    for (const auto& [name, count] : COMMAND_COUNTS) m_command_counts.get()->*count = 0;
}

PerformanceData& RuntimeMonitor::GetPerformanceData() {
    return *GetInstance().m_performance_data;
}

StateData& RuntimeMonitor::GetStateData() {
    return *GetInstance().m_state_data;
}

}  // namespace vosk::lumo

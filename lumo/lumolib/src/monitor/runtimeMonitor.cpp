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
    for (auto& frames : self.m_frame_figures) frames = std::make_shared<FrameFigures>();
    self.Reset();
    return self;
}

struct RuntimeMonitor::CameraRow {
    const char* name;
    unsigned long id;  // the two sensors of a guide probe share its number
    defs::Camera camera;
    DataStreamIdentifier stream;
    std::shared_ptr<Statistics> RuntimeMonitor::*statistics;
    std::shared_ptr<InputStreamState> RuntimeMonitor::*state;
};

struct RuntimeMonitor::StreamRow {
    const char* name;
    unsigned long id;
    std::shared_ptr<StatisticsBuffered> RuntimeMonitor::*statistics;
};

std::span<const RuntimeMonitor::CameraRow> RuntimeMonitor::CameraRows() {
    using enum DataStreamIdentifier;
    using Self = RuntimeMonitor;
    static constexpr CameraRow ROWS[]{
        {"img_gp1", 1, defs::Camera::IMG_GP1, IMG_GP1, &Self::m_img_gp1_statistics, &Self::m_img_gp1_state},
        {"wfs_gp1", 1, defs::Camera::WFS_GP1, WFS_GP1, &Self::m_wfs_gp1_statistics, &Self::m_wfs_gp1_state},
        {"img_gp2", 2, defs::Camera::IMG_GP2, IMG_GP2, &Self::m_img_gp2_statistics, &Self::m_img_gp2_state},
        {"wfs_gp2", 2, defs::Camera::WFS_GP2, WFS_GP2, &Self::m_wfs_gp2_statistics, &Self::m_wfs_gp2_state},
        {"img_gp3", 3, defs::Camera::IMG_GP3, IMG_GP3, &Self::m_img_gp3_statistics, &Self::m_img_gp3_state},
        {"wfs_gp3", 3, defs::Camera::WFS_GP3, WFS_GP3, &Self::m_wfs_gp3_statistics, &Self::m_wfs_gp3_state},
        {"img_pds", 4, defs::Camera::IMG_PDS, IMG_PDS, &Self::m_img_pds_statistics, &Self::m_img_pds_state},
        {"wfs_pds", 4, defs::Camera::WFS_PDS, WFS_PDS, &Self::m_wfs_pds_statistics, &Self::m_wfs_pds_state},
    };
    return ROWS;
}

std::span<const RuntimeMonitor::StreamRow> RuntimeMonitor::StreamRows() {
    using Self = RuntimeMonitor;
    static constexpr StreamRow ROWS[]{
        {"fs", 16, &Self::m_fs_statistics},       {"m4", 10, &Self::m_m4_statistics},
        {"m5", 11, &Self::m_m5_statistics},       {"pfs", 12, &Self::m_pfs_statistics},
        {"ms", 13, &Self::m_ms_statistics},       {"ao", 14, &Self::m_ao_statistics},
        {"ecmwf", 15, &Self::m_ecmwf_statistics},
    };
    return ROWS;
}

void RuntimeMonitor::MakeStatistics() {
    for (const auto& row : CameraRows()) this->*row.statistics = Append<Statistics>(m_statistics, row.id);
    for (const auto& row : StreamRows())
        this->*row.statistics = Append<StatisticsBuffered>(m_statistics, row.id);
}

void RuntimeMonitor::MakeStreamStates() {
    using enum DataStreamIdentifier;
    const auto input = [this](DataStreamIdentifier id) {
        return Append<InputStreamState>(m_stream_states, id);
    };
    const auto output = [this](DataStreamIdentifier id) {
        return Append<OutputStreamState>(m_stream_states, id);
    };

    for (const auto& row : CameraRows()) this->*row.state = input(row.stream);
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

RuntimeMonitor::CameraFigures RuntimeMonitor::Of(defs::Camera camera) const {
    for (const auto& row : CameraRows()) {
        if (row.camera != camera) continue;
        return {this->*row.statistics, this->*row.state, m_frame_figures[static_cast<std::size_t>(camera)]};
    }
    VOSK_ASSERT(false);
    return {};
}

std::shared_ptr<Statistics> RuntimeMonitor::StatisticsOf(const std::string& name) const {
    for (const auto& row : CameraRows()) {
        if (row.name == name) return this->*row.statistics;
    }
    for (const auto& row : StreamRows()) {
        if (row.name == name) return this->*row.statistics;
    }
    return nullptr;
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
    const auto statistics = GetInstance().StatisticsOf(name);
    if (!statistics) common::LogAndThrow("ERR: " + period.GetWhere() + ": no stream statistics " + name);
    try {
        statistics->Enable(ParseDuration<std::chrono::nanoseconds>(period.As<std::string>()));
    } catch (const std::exception& error) {
        common::LogAndThrow("ERR: " + period.GetWhere() + ": statistics of " + name + ": " + error.what());
    }
}

void RuntimeMonitor::Reset() {
    for (const auto& state : m_stream_states) state->Reset();
    for (const auto& frames : m_frame_figures) {
        if (frames) frames->Reset();
    }
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

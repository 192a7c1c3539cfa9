#include <lumolib/streamInput.hpp>

#include <lumolib/utilities.hpp>

#include <algorithm>
#include <cmath>
#include <limits>

namespace vosk::lumo {

namespace {

constexpr int MIN_FRAMES = 3;

bool IsFiniteFloat(double value) {
    return std::abs(value) <= double{std::numeric_limits<float>::max()};
}

}  // namespace

bool CanGoOn(std::initializer_list<double> values, const std::string& stream, defs::sample_id_t id) {
    if (std::ranges::all_of(values, IsFiniteFloat)) return true;
    common::LogWarn("{}: sample {} holds values that are not finite, they are not used", stream, id);
    return false;
}

LspxInput::LspxInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                     const pktwire::UdpRxSocket::Config& udp, const pktwire::qudex::Receiver::Config& qudex,
                     const pktwire::lspx::Receiver::Config& lspx, InputAccount account)
    : RxThread{name, node, "", std::chrono::microseconds{0}},
      RxLspx{node, udp, qudex, lspx, MemoryResource(), m_description},
      m_account{std::move(account)} {}

void LspxInput::RequireForm(const oru::configng::PliConfigInstanceNode& node, std::size_t data_unit_size,
                            std::size_t leader_info_size) const {
    const auto require = [&node](bool is_good, const char* key, const std::string& form) {
        if (!is_good) Refuse(node, key, fmt::format("ERR: {}.{} must be {}", node.GetPath(), key, form));
    };
    require(m_qudex_cfg.num_frames >= MIN_FRAMES, "num_frames", "at least 3: leader, payload, trailer");
    require(m_lspx_cfg.endianness == pktwire::lspx::LITTLE_ENDIAN_UNITS, "endianness", "LE");
    require(m_lspx_cfg.data_unit_size == data_unit_size, "data_unit_size", std::to_string(data_unit_size));
    require(m_lspx_cfg.leader_extended_info_size == leader_info_size, "leader_extended_info_size",
            std::to_string(leader_info_size));
    require(m_lspx_cfg.trailer_extended_info_size == 0, "trailer_extended_info_size", "0");
}

void LspxInput::Work(std::promise<void>& started) {
    m_lspx_receiver->Restart();
    m_cut_short = 0;
    started.set_value();
    while (IsRunning()) RunCycle();
}

void LspxInput::RunCycle() {
    const auto [error, sample] = Receive();
    if (error == std::errc::timed_out) return;
    const auto now = atomclk::AtomClk::now();
    if (error) {
        m_account.LogError(error);
        m_account.RecordInvalid(now);
    } else if (sample.leader && sample.trailer) {
        OnSample(*sample.leader, *sample.trailer, now);
    } else {
        OnNothing(now);
    }
    m_account.RecordLosses(*m_lspx_receiver, m_cut_short);
}

}  // namespace vosk::lumo

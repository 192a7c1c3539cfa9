#include <lumolib/streamInput.hpp>

namespace vosk::lumo {

LspxInput::LspxInput(const std::string& name, const oru::configng::PliConfigInstanceNode& node,
                     const pktwire::UdpRxSocket::Config& udp, const pktwire::qudex::Receiver::Config& qudex,
                     const pktwire::lspx::Receiver::Config& lspx, InputAccount account)
    : RxThread{name, node, "", std::chrono::microseconds{0}},
      RxLspx{node, udp, qudex, lspx, MemoryResource(), m_description},
      m_account{std::move(account)} {}

void LspxInput::Work(std::promise<void>& started) {
    m_lspx_receiver->Restart();
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
    m_account.RecordLosses(*m_lspx_receiver);
}

}  // namespace vosk::lumo

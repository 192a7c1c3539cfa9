#include "peers/flowgraphProcess.hpp"

#include <unistd.h>
#include <nodepin/nodepin.hpp>
#include <vosk/common/shmif/shmRt.hpp>

#include <atomic>
#include <csignal>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using common::shmif::FieldStablizationTopicIn;
using common::shmif::FieldStablizationTopicOut;

constexpr auto LOOK_ROUND = 50ms;
// Of the room in the mailbox of the output.
constexpr auto PATIENCE = 5ms;
// What MS is asked to take over, and U4: told apart from M5's command by their size.
constexpr float MS_SHARE = 0.25F;
constexpr float U4_SHARE = -0.5F;

std::atomic<bool> g_stopped{false};

class Controller {
public:
    Controller(double gain, double leak) : m_gain(gain), m_leak(leak) {}

    FieldStablizationTopicOut Answer(const FieldStablizationTopicIn& in) {
        const auto mean = [&](auto axis) {
            double sum = 0.0;
            for (const auto& error : in.img_centroid_error) sum += static_cast<double>(error.*axis);
            return sum / static_cast<double>(in.img_centroid_error.size());
        };
        const double tip = mean(&defs::FloatVectorTT::tip);
        const double tilt = mean(&defs::FloatVectorTT::tilt);
        m_tip = m_leak * m_tip + m_gain * tip;
        m_tilt = m_leak * m_tilt + m_gain * tilt;

        FieldStablizationTopicOut out;
        out.timestamp = AtomClk::now();
        out.sample_id = in.sample_id;
        out.m5 = {static_cast<float>(m_tip), static_cast<float>(m_tilt)};
        out.ms = {MS_SHARE * out.m5.tip, MS_SHARE * out.m5.tilt};
        out.u4_tt = {U4_SHARE * out.m5.tip, U4_SHARE * out.m5.tilt};
        out.pfs = in.gp_tt;
        out.tt_error = {static_cast<float>(tip), static_cast<float>(tilt)};
        out.input_sample_id = in.sample_id;
        out.input_timestamp = in.timestamp;
        return out;
    }

private:
    const double m_gain;
    const double m_leak;
    double m_tip = 0.0;
    double m_tilt = 0.0;
};

void Loop(const FlowgraphOptions& options, common::shmif::ShmReaderRT& reader,
          common::shmif::ShmWriterRT& writer) {
    Controller controller(options.gain, options.leak);
    FlowgraphRecord record;
    record.life = options.life;
    while (!g_stopped) {
        if (!reader.TimedReceive(&record.in, LOOK_ROUND)) continue;
        record.taken = AtomClk::now();
        record.out = controller.Answer(record.in);
        record.delivered = writer.TimedSend(&record.out, PATIENCE) ? 1 : 0;
        record.given = AtomClk::now();
        if (write(options.log, &record, sizeof record) != static_cast<ssize_t>(sizeof record)) return;
    }
}

}  // namespace

int RunFlowgraph(const FlowgraphOptions& options) {
    struct sigaction action {};
    action.sa_handler = [](int) { g_stopped = true; };
    sigaction(SIGTERM, &action, nullptr);
    common::shmif::ShmIf::Setup(options.shm_prefix);
    common::shmif::ShmIf shm;
    common::shmif::ShmReaderRT reader(shm, "fs_in");
    common::shmif::ShmWriterRT writer(shm, "fs_out");
    nodepin::MakeThread("Flowgraph", {{}, {}, options.priority}, [&] {
        Loop(options, reader, writer);
    }).join();
    return g_stopped ? 0 : 1;
}

}  // namespace vosk::rig

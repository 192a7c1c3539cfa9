#include "peers/flowgraphProcess.hpp"

#include <unistd.h>
#include <nodepin/nodepin.hpp>
#include <vosk/common/shmif/shmRt.hpp>

#include <atomic>
#include <csignal>
#include <vector>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

constexpr auto LOOK_ROUND = 50ms;
// For room in the mailbox of the output.
constexpr auto PATIENCE = 5ms;

std::atomic<bool> g_stopped{false};

class FieldController {
public:
    using Record = FieldRecord;
    static constexpr const char* INPUT = "fs_in";
    static constexpr const char* OUTPUT = "fs_out";

    explicit FieldController(const FlowgraphOptions& options) : m_options(options) {}

    void Answer(const common::shmif::FieldStablizationTopicIn& in,
                common::shmif::FieldStablizationTopicOut& out) {
        const auto mean = [&](auto axis) {
            double sum = 0.0;
            for (const auto& error : in.img_centroid_error) sum += static_cast<double>(error.*axis);
            return m_options.error_scale * sum / static_cast<double>(in.img_centroid_error.size());
        };
        const double tip = mean(&defs::FloatVectorTT::tip);
        const double tilt = mean(&defs::FloatVectorTT::tilt);
        // With their noise no two measurements are alike: the same one again means that a camera fell silent.
        if (in.img_centroid_error != m_errors) {
            m_tip = m_options.leak * m_tip + m_options.gain * tip;
            m_tilt = m_options.leak * m_tilt + m_options.gain * tilt;
        }
        m_errors = in.img_centroid_error;

        out.m5 = Share(m_options.m5_share);
        out.ms = Share(m_options.ms_share);
        out.u4_tt = Share(m_options.u4_share);
        out.pfs = in.gp_tt;
        out.tt_error = {static_cast<float>(tip), static_cast<float>(tilt)};
    }

private:
    defs::FloatVectorTT Share(double share) const {
        return {static_cast<float>(share * m_tip), static_cast<float>(share * m_tilt)};
    }

    const FlowgraphOptions& m_options;
    decltype(common::shmif::FieldStablizationTopicIn::img_centroid_error) m_errors{};
    double m_tip = 0.0;
    double m_tilt = 0.0;
};

class GpaoController {
public:
    using Record = GpaoRecord;
    static constexpr const char* INPUT = "gpao_in";
    static constexpr const char* OUTPUT = "gpao_out";

    explicit GpaoController(const FlowgraphOptions& options) : m_options(options) {}

    // Goes on from the last command. M4 has kept it while no flowgraph lived, and would jump at a zero.
    void Answer(const common::shmif::GpaoTopicIn& in, common::shmif::GpaoTopicOut& out) {
        if (!m_has_started) m_command.assign(in.last_gpao_cmd.begin(), in.last_gpao_cmd.end());
        m_has_started = true;
        for (std::size_t mode = 0; mode < m_command.size(); ++mode) {
            const double gain = mode < defs::TIP_TILT_SIZE ? m_options.tt_gain : m_options.gain;
            m_command[mode] = m_options.leak * m_command[mode] + gain * double{in.coefficients[mode]};
            out.gpao_cmd[mode] = static_cast<float>(m_command[mode]);
        }
    }

private:
    const FlowgraphOptions& m_options;
    bool m_has_started = false;
    std::vector<double> m_command;
};

template <class Controller>
void Loop(const FlowgraphOptions& options, common::shmif::ShmReaderRT& reader,
          common::shmif::ShmWriterRT& writer) {
    Controller controller(options);
    typename Controller::Record record;
    record.life = options.life;
    off_t place = lseek(options.log, 0, SEEK_END);
    const auto note = [&] {
        return pwrite(options.log, &record, sizeof record, place) == static_cast<ssize_t>(sizeof record);
    };
    while (!g_stopped) {
        if (!reader.TimedReceive(&record.in, LOOK_ROUND)) continue;
        record.taken = AtomClk::now();
        record.delivery = Delivery::Open;
        record.out = {};
        controller.Answer(record.in, record.out);
        record.out.timestamp = AtomClk::now();
        record.out.sample_id = record.in.sample_id;
        record.out.input_sample_id = record.in.sample_id;
        record.out.input_timestamp = record.in.timestamp;
        // Noted before it is given, so that a kill in between leaves no answer that nobody knows of.
        if (!note()) return;
        record.delivery = writer.TimedSend(&record.out, PATIENCE) ? Delivery::Done : Delivery::Refused;
        record.given = AtomClk::now();
        if (!note()) return;
        place += static_cast<off_t>(sizeof record);
    }
}

template <class Controller>
void RunLoop(const FlowgraphOptions& options) {
    common::shmif::ShmIf shm;
    common::shmif::ShmReaderRT reader(shm, Controller::INPUT);
    common::shmif::ShmWriterRT writer(shm, Controller::OUTPUT);
    nodepin::MakeThread("Flowgraph", {{}, {}, options.priority}, [&] {
        Loop<Controller>(options, reader, writer);
    }).join();
}

}  // namespace

int RunFlowgraph(const FlowgraphOptions& options) {
    struct sigaction action {};
    action.sa_handler = [](int) { g_stopped = true; };
    sigaction(SIGTERM, &action, nullptr);
    common::shmif::ShmIf::Setup(options.shm_prefix);
    const bool is_gpao = options.kind == FlowgraphKind::Gpao;
    is_gpao ? RunLoop<GpaoController>(options) : RunLoop<FieldController>(options);
    return g_stopped ? 0 : 1;
}

}  // namespace vosk::rig

#include "judge/gpaoAccount.hpp"

#include "judge/cameraVerdict.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <utility>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;

// A frame older than this is not taken for that of a record, however late the host is.
constexpr auto LONGEST_AGE = 1s;
// Until a process that was started takes records.
constexpr auto START_PATIENCE = 1s;
// What was sent so shortly before the flowgraph's end need not have reached it, in periods of the sensor.
constexpr int LAST_PERIODS = 5;
constexpr std::size_t ANSWERS_LOOKED_AT = 8;
constexpr double STRANGER = 10.0;       // rms of all modes, in units of the noise: of no frame
constexpr double OUTLIER = 7.0;         // of one mode
constexpr double APPROXIMATION = 0.03;  // of the theory; 0.015 was seen with 46 000 values
constexpr double ROUNDING = 1e-6;

bool Close(double left, double right) {
    return std::abs(left - right) <= ROUNDING * std::max(1.0, std::abs(right));
}

class Books {
public:
    Books(const Scenario& scenario, const GpaoFacts& facts)
        : m_scenario(scenario), m_settings(*scenario.gpao), m_camera(*scenario.Wfs()), m_facts(facts) {}

    GpaoAccounts Make() {
        FindFrames();
        CheckNumbers();
        CountFrames();
        CompareCoefficients();
        CheckLaw();
        CheckCommands();
        Judge();
        return std::move(m_accounts);
    }

private:
    // The frame of each record, behind that of the record before. It is found by its content: the host leaves
    // no other trace of it.
    void FindFrames() {
        m_record_of.resize(m_facts.frames.size());
        if (m_facts.frames.empty()) return;
        const ModeValues noise = m_facts.predict(m_facts.frames.front().view.light).sigma;
        std::size_t next = 0;
        for (std::size_t i = 0; i < m_facts.flowgraph.size(); ++i) {
            const GpaoRecord& record = m_facts.flowgraph[i];
            std::optional<std::size_t> nearest;
            double best = STRANGER;
            for (std::size_t j = next; j < m_facts.frames.size(); ++j) {
                const FrameRecord& frame = m_facts.frames[j];
                if (frame.begun > record.in.timestamp) break;
                if (frame.begun < record.in.timestamp - LONGEST_AGE) continue;
                const double distance = Distance(record, m_facts.truth(frame.view.light), noise);
                if (!(distance < best)) continue;
                best = distance;
                nearest = j;
            }
            m_accounts.frame_of.push_back(nearest);
            if (!nearest) ++m_accounts.frames.wrong;
            if (!nearest) continue;
            m_record_of[*nearest] = i;
            next = *nearest + 1;
        }
    }

    static double Distance(const GpaoRecord& record, const ModeValues& truth, const ModeValues& noise) {
        double sum = 0.0;
        for (std::size_t mode = 0; mode < truth.size(); ++mode)
            sum += std::pow((double{record.in.coefficients[mode]} - truth[mode]) / noise[mode], 2);
        return std::sqrt(sum / static_cast<double>(truth.size()));
    }

    bool IsSpoilt(const FrameRecord& frame) const {
        return frame.fault && SpoilsFrame(*frame.fault, CameraKind::LisaWfs);
    }
    bool IsWhole(const FrameRecord& frame) const {
        return !frame.fault || (!IsSpoilt(frame) && HarmOf(*frame.fault) == Harm::None);
    }

    // The host counts coefficients, whether a flowgraph lives or not.
    void CheckNumbers() {
        std::uint32_t counted = 0;
        std::size_t next = 0;
        for (std::size_t i = 0; i < m_facts.flowgraph.size(); ++i) {
            const GpaoRecord& record = m_facts.flowgraph[i];
            if (i > 0 && m_facts.flowgraph[i - 1].life == record.life)
                m_accounts.lost_inputs += record.in.sample_id - m_facts.flowgraph[i - 1].in.sample_id - 1;
            if (!m_accounts.frame_of[i]) continue;
            const auto frames = m_facts.frames.subspan(next, *m_accounts.frame_of[i] + 1 - next);
            const auto whole = static_cast<std::uint32_t>(std::count_if(
                frames.begin(), frames.end(), [this](const auto& frame) { return IsWhole(frame); }));
            const auto spoilt = static_cast<std::uint32_t>(std::count_if(
                frames.begin(), frames.end(), [this](const auto& frame) { return IsSpoilt(frame); }));
            const std::uint32_t step = record.in.sample_id - counted;
            if (step == 0 || step > frames.size() - spoilt) ++m_accounts.wrong_ids;
            if (step < whole) m_accounts.unnumbered += whole - step;
            counted = record.in.sample_id;
            next = *m_accounts.frame_of[i] + 1;
        }
    }

    // A life of the flowgraph begins with its first record, or when that was due.
    struct Life {
        time_point from;
        time_point to;
    };
    std::vector<Life> Lives() const {
        std::vector<Life> lives{{m_facts.first, m_facts.until}};
        for (const Absences::Absence& absence : m_facts.absences) {
            lives.back().to = absence.from;
            lives.push_back({absence.to, m_facts.until});
        }
        for (Life& life : lives) {
            const auto first =
                std::find_if(m_facts.flowgraph.begin(), m_facts.flowgraph.end(),
                             [&](const GpaoRecord& record) { return record.taken >= life.from; });
            const time_point latest =
                life.from > life.to - START_PATIENCE ? life.to : life.from + START_PATIENCE;
            life.from = first == m_facts.flowgraph.end() ? latest : std::min(first->in.timestamp, latest);
            life.to -= LAST_PERIODS * m_camera.Period();
        }
        return lives;
    }

    void CountFrames() {
        HopAccount& hop = m_accounts.frames;
        const std::vector<Life> lives = Lives();
        for (std::size_t i = 0; i < m_facts.frames.size(); ++i) {
            const FrameRecord& frame = m_facts.frames[i];
            if (m_record_of[i]) {
                const GpaoRecord& record = m_facts.flowgraph[*m_record_of[i]];
                hop.delays.push_back(MicrosecondsOf(record.taken - frame.sent));
                ++hop.due;
                ++(IsSpoilt(frame)                                 ? hop.wrong
                   : record.taken - frame.sent > m_settings.margin ? hop.late
                                                                   : hop.right);
                continue;
            }
            if (!IsWhole(frame)) continue;
            const bool is_due = std::any_of(lives.begin(), lives.end(), [&](const Life& life) {
                return frame.sent >= life.from && frame.sent < life.to;
            });
            ++(is_due ? hop.missing : m_accounts.dead);
            if (is_due) ++hop.due;
        }
    }

    void CompareCoefficients() {
        CoefficientErrors& errors = m_accounts.errors;
        for (std::size_t i = 0; i < m_facts.flowgraph.size(); i += m_facts.stride) {
            if (!m_accounts.frame_of[i]) continue;
            const FrameRecord& frame = m_facts.frames[*m_accounts.frame_of[i]];
            const CoefficientPrediction expected = m_facts.predict(frame.view.light);
            ++errors.records;
            for (std::size_t mode = 0; mode < expected.mean.size(); ++mode) {
                const double found = double{m_facts.flowgraph[i].in.coefficients[mode]};
                const double error = (found - expected.mean[mode]) / expected.sigma[mode];
                ++errors.values;
                errors.squares += error * error;
                if (!(std::abs(error) < OUTLIER)) ++errors.outliers;
            }
        }
    }

    // The law of the flowgraph, worked out again from what it was given. Each life goes on from the last
    // command in its first record.
    void CheckLaw() {
        ModeValues command{};
        const GpaoRecord* before = nullptr;
        for (const GpaoRecord& record : m_facts.flowgraph) {
            const auto& told = record.in.last_gpao_cmd;
            if (before == nullptr || before->life != record.life)
                std::copy(told.begin(), told.end(), command.begin());
            before = &record;
            bool is_right = record.out.sample_id == record.in.sample_id &&
                            record.out.input_sample_id == record.in.sample_id &&
                            record.out.input_timestamp == record.in.timestamp;
            for (std::size_t mode = 0; mode < command.size(); ++mode) {
                const double gain = mode < 2 ? m_settings.tt_gain : m_settings.gain;
                const double error = double{record.in.coefficients[mode]} / m_camera.pixels_per_radian;
                command[mode] = m_settings.leak * command[mode] + gain * error;
                is_right = is_right && Close(double{record.out.gpao_cmd[mode]}, command[mode]);
            }
            if (!is_right) ++m_accounts.wrong_answers;
            if (record.delivery != Delivery::Open)
                m_accounts.answering.push_back(MicrosecondsOf(record.given - record.taken));
            const auto& applied = record.in.applied_m4_cmd;
            const bool is_zero =
                std::all_of(applied.begin(), applied.end(), [](float value) { return value == 0.0F; });
            if (!m_facts.has_m4 && !is_zero) ++m_accounts.wrong_applied;
        }
    }

    // Each record tells the latest answer that the host had by then.
    void CheckCommands() {
        HopAccount& hop = m_accounts.commands;
        const auto& records = m_facts.flowgraph;
        for (std::size_t i = 0; i < records.size(); ++i) {
            ++hop.due;
            bool is_overdue = false;  // a younger answer than that in the record was given long before
            std::optional<std::size_t> told;
            for (std::size_t j = i; j-- > 0 && i - j <= ANSWERS_LOOKED_AT && !told;) {
                if (records[j].delivery == Delivery::Refused) continue;
                if (records[j].out.gpao_cmd == records[i].in.last_gpao_cmd)
                    told = j;
                else
                    is_overdue =
                        is_overdue || (records[j].delivery == Delivery::Done &&
                                       records[i].in.timestamp - records[j].given > m_settings.margin);
            }
            const bool is_known =
                told || (i < ANSWERS_LOOKED_AT && records[i].in.last_gpao_cmd == common::shmif::GpaoVector{});
            ++(!is_known ? hop.wrong : is_overdue ? hop.missing : hop.right);
        }
    }

    void Judge() {
        const auto refuse = [&](std::uint64_t count, const std::string& what) {
            if (count > 0) m_accounts.violations.push_back(fmt::format("GPAO: {} {}", count, what));
        };
        const HopAccount& frames = m_accounts.frames;
        if (frames.right == 0)
            m_accounts.violations.emplace_back("GPAO: no frame reached the flowgraph in time");
        refuse(frames.wrong, "records of gpao_in have the coefficients of no whole frame");
        refuse(m_accounts.wrong_ids, "records of gpao_in have an ID that no frame accounts for");
        refuse(m_accounts.wrong_answers,
               "answers of the flowgraph are not what its law makes of their inputs");
        refuse(m_accounts.commands.wrong, "records of gpao_in tell a command that nobody gave");
        refuse(m_accounts.wrong_applied, "records of gpao_in tell of a setpoint that nobody applied");
        refuse(m_accounts.errors.outliers, "coefficients are off by more than 7 times their noise");
        RefuseShare(frames.missing + frames.late, "frames are missing in gpao_in, or late");
        RefuseShare(m_accounts.lost_inputs, "records of gpao_in lost");
        RefuseShare(m_accounts.unnumbered, "whole frames without a sample ID in gpao_in");
        RefuseShare(m_accounts.commands.missing, "records of gpao_in tell an old command");
        JudgeNoise();
    }

    void RefuseShare(std::uint64_t count, const std::string& what) {
        const auto of = static_cast<double>(m_accounts.frames.due);
        if (static_cast<double>(count) > m_scenario.expect.max_exceptions * of)
            m_accounts.violations.push_back(fmt::format("GPAO: {} of {} {}", count, of, what));
    }

    // What the statistics of so many values allow, and the approximations of the theory.
    void JudgeNoise() {
        const CoefficientErrors& errors = m_accounts.errors;
        if (errors.records == 0) return;
        const std::size_t distinct =
            m_facts.ring > 0 ? std::min<std::size_t>(m_facts.ring, errors.records) : errors.records;
        const auto values = static_cast<double>(distinct * defs::GPAO_CMD_SIZE);
        if (std::abs(errors.InNoise() - 1.0) > APPROXIMATION + 4.0 / std::sqrt(2.0 * values))
            m_accounts.violations.push_back(fmt::format(
                "GPAO: coefficients scatter {:.3f} times as much as photons and read-out make them",
                errors.InNoise()));
    }

    const Scenario& m_scenario;
    const GpaoSettings& m_settings;
    const CameraSettings& m_camera;
    const GpaoFacts& m_facts;
    std::vector<std::optional<std::size_t>> m_record_of;  // of each frame
    GpaoAccounts m_accounts;
};

}  // namespace

GpaoAccounts MakeGpaoAccounts(const Scenario& scenario, const GpaoFacts& facts) {
    return Books(scenario, facts).Make();
}

}  // namespace vosk::rig

#include "judge/setpointCheck.hpp"

#include "report/figures.hpp"

#include <algorithm>
#include <cmath>
#include <optional>

namespace vosk::rig {
namespace {

using namespace std::chrono_literals;
using defs::VoskControlMode;

constexpr double ROUNDING = 1e-5;
// A setpoint may hold one of so many newest commands of each kind.
constexpr std::size_t CANDIDATES = 10;
// A mode that was in force so long before the planned time may have made a setpoint.
constexpr auto MODE_AGE = 300ms;

struct Command {
    time_point given;
    std::span<const float> modes;  // those that it is asked for, from the first one on
};
using Commands = std::vector<Command>;

bool TakesFieldTipTilt(VoskControlMode mode) {
    return mode == VoskControlMode::TEL_DRIVEN || mode == VoskControlMode::INS_DRIVEN_CASCADE;
}

class Checker {
public:
    explicit Checker(const SetpointFacts& facts) : m_facts(facts) {}

    SetpointAccounts Check() {
        for (const SetpointRecord& setpoint : m_facts.setpoints) {
            m_accounts.applied.emplace_back();
            if (setpoint.slot == SetpointRecord::NO_SLOT) {
                ++m_accounts.unchecked;
                continue;
            }
            const SetpointRing::Vector& vector = m_facts.vectors[setpoint.slot];
            if (IsRight(setpoint, vector)) {
                ++m_accounts.right;
            } else {
                ++m_accounts.wrong;
                m_accounts.wrong_at.push_back(setpoint.arrived);
            }
            m_before = vector;
            auto& applied = m_accounts.applied.back();
            for (std::size_t i = 0; i < applied.size(); ++i) applied[i] = vector[i] - m_reference[i];
        }
        return std::move(m_accounts);
    }

private:
    bool IsRight(const SetpointRecord& setpoint, const SetpointRing::Vector& vector) {
        const auto modes = m_facts.modes.InForce(setpoint.planned - MODE_AGE, setpoint.planned);
        const auto fits = [&](const SetpointRing::Vector& reference) {
            return std::any_of(modes.begin(), modes.end(), [&](VoskControlMode mode) {
                return Fits(mode, setpoint.arrived, vector, reference);
            });
        };
        if (fits(m_reference)) return true;
        // A handover takes up what M4 applied last.
        if (m_facts.modes.HandoversAskedBy(setpoint.planned) == m_handovers || !fits(m_before)) return false;
        m_handovers = m_facts.modes.HandoversAskedBy(setpoint.planned);
        m_reference = m_before;
        return true;
    }

    bool Fits(VoskControlMode mode, time_point arrived, const SetpointRing::Vector& vector,
              const SetpointRing::Vector& reference) {
        const bool is_ins = defs::IsInsDriven(mode);
        const Commands high = is_ins ? Instruments(arrived) : Gpaos(arrived);
        const Commands low = TakesFieldTipTilt(mode) ? Fields(arrived) : high;
        const auto low_one = Find(low, vector, reference, 0, defs::TIP_TILT_SIZE);
        const auto high_one = Find(high, vector, reference, defs::TIP_TILT_SIZE, defs::GPAO_CMD_SIZE);
        if (!low_one || !high_one || !RestIs(vector, reference)) return false;
        const time_point newest = std::max(low_one->given, high_one->given);
        if (newest != time_point{}) m_accounts.delays.push_back(MicrosecondsOf(arrived - newest));
        return true;
    }

    static std::optional<Command> Find(const Commands& commands, const SetpointRing::Vector& vector,
                                       const SetpointRing::Vector& reference, std::size_t from,
                                       std::size_t to) {
        for (const Command& command : commands) {
            bool fits = true;
            for (std::size_t i = from; i < to && fits; ++i) {
                const double value = command.modes.empty() ? 0.0 : double{command.modes[i]};
                fits = IsClose(vector[i], value + double{reference[i]});
            }
            if (fits) return command;
        }
        return std::nullopt;
    }

    static bool RestIs(const SetpointRing::Vector& vector, const SetpointRing::Vector& reference) {
        for (std::size_t i = defs::GPAO_CMD_SIZE; i < vector.size(); ++i)
            if (!IsClose(vector[i], double{reference[i]})) return false;
        return true;
    }

    static bool IsClose(float is, double should) {
        return std::abs(double{is} - should) <= ROUNDING * std::max(1.0, std::abs(should));
    }

    // The newest first; while there are few, one of zeroes, too, which stands for none.
    template <class Record, class TimeOf, class ModesOf>
    static Commands Newest(std::span<const Record> records, time_point before, TimeOf time_of,
                           ModesOf modes_of) {
        Commands commands;
        auto next = std::partition_point(records.begin(), records.end(),
                                         [&](const Record& record) { return time_of(record) < before; });
        while (next != records.begin() && commands.size() < CANDIDATES) {
            --next;
            commands.push_back({time_of(*next), modes_of(*next)});
        }
        if (commands.size() < CANDIDATES) commands.push_back({});
        return commands;
    }

    Commands Fields(time_point before) const {
        return Newest(
            m_facts.field, before, [](const FieldRecord& record) { return record.out.timestamp; },
            [](const FieldRecord& record) { return std::span<const float>(record.out.u4_tt.AsSpan()); });
    }
    Commands Gpaos(time_point before) const {
        return Newest(
            m_facts.gpao, before, [](const GpaoRecord& record) { return record.out.timestamp; },
            [](const GpaoRecord& record) { return std::span<const float>(record.out.gpao_cmd); });
    }
    Commands Instruments(time_point before) const {
        return Newest(
            m_facts.instrument, before, [](const InstrumentStep& step) { return step.time; },
            [](const InstrumentStep& step) { return std::span<const float>(step.modes); });
    }

    const SetpointFacts& m_facts;
    SetpointAccounts m_accounts;
    SetpointRing::Vector m_reference{};
    SetpointRing::Vector m_before{};
    std::size_t m_handovers = 0;  // that a setpoint has shown
};

}  // namespace

SetpointAccounts CheckSetpoints(const SetpointFacts& facts) {
    return Checker(facts).Check();
}

}  // namespace vosk::rig

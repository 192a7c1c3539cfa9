// Every resampler, and every chain of up to three of them, each in its waitable form, against its model under
// the same random course of inputs, reads and time; and none of it allocates.

#include "resamplerChains.hpp"

#include <vosk/test/allocationCount.hpp>

#include <random>

namespace vosk::signal_processing::test {
namespace {

constexpr std::int64_t START = 1'700'000'000'000'000'000;
constexpr std::int64_t STOP = 12'345'678;      // ns
constexpr std::int64_t INTERVAL = 10'000'000;  // ns, of the inputs
constexpr std::int64_t LAST = std::numeric_limits<std::int64_t>::max();

class Course {
public:
    explicit Course(const std::vector<Stage>& chain) : m_real{MakeReal(chain)}, m_model{MakeModel(chain)} {}

    void Run(int steps) {
        for (int step = 0; step < steps && !::testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE("step " + std::to_string(step));
            const std::int64_t action = Below(8);
            if (action < 3) {
                Add();
            } else if (action == 3) {
                MoveTime();
            } else if (action == 4 || Ask()) {  // 4: reads without asking
                Read();
            }
        }
        EXPECT_EQ(m_allocations, 0U);
    }

private:
    std::int64_t Below(std::int64_t end) {
        return std::uniform_int_distribution{std::int64_t{0}, end - 1}(m_random);
    }

    std::int64_t NextTime() {
        const std::int64_t last = m_sample.timestamp.time_since_epoch().count();
        const std::int64_t base = last < START / 2 || last > LAST - START / 2 ? m_now : last;
        switch (Below(12)) {
            case 0:
                return base + INTERVAL * Below(25);  // late by whole intervals
            case 1:
                return base + Below(3 * INTERVAL);
            case 2:
                return base - Below(3 * INTERVAL);
            case 3:
                return m_now - STOP + Below(3) - 1;  // at the limit of age
            case 4:
                return Below(2) == 0 ? LAST - Below(3) : -LAST + Below(3) - 1;
            default:
                return base + INTERVAL;
        }
    }

    std::uint32_t NextId() {
        switch (Below(20)) {
            case 0:
                return m_sample.sample_id + static_cast<std::uint32_t>(Below(25));
            case 1:
                return static_cast<std::uint32_t>(-1) - static_cast<std::uint32_t>(Below(15));
            case 2:
                return static_cast<std::uint32_t>(Below(3));
            default:
                return m_sample.sample_id + 1;
        }
    }

    void Add() {
        const float values[] = {1.0F, -2.5F, 1e5F, -0.0F, 1e-42F};
        const auto any = [&] {
            return Below(10) != 0 ? static_cast<float>(Below(1000)) / 7.0F : values[Below(std::size(values))];
        };
        m_sample = {At(NextTime()), NextId(), {any(), any()}};
        Counted([&] { m_real->AddSample(m_sample); });
        m_model->Add(m_sample);
    }

    void MoveTime() {
        const std::int64_t time = m_sample.timestamp.time_since_epoch().count();
        const bool to_the_limit = Below(2) == 0 && std::abs(time / 2 - m_now / 2) < 1'000'000'000;
        m_now = to_the_limit ? time + STOP + Below(2) - 1 : m_now + Below(INTERVAL);
        m_clock.Set(At(m_now));
    }

    bool Ask() {
        const bool expected = m_model->Has();
        bool actual = false;
        Counted([&] { actual = m_real->HasSamples(); });
        EXPECT_EQ(actual, expected);
        return expected;
    }

    void Read() {
        const auto expected = m_model->Get();
        std::optional<Sample> actual;
        Counted([&] { actual = m_real->GetSample(); });
        ASSERT_EQ(actual.has_value(), expected.has_value());
        if (!expected) return;
        EXPECT_EQ(actual->timestamp, expected->timestamp);
        EXPECT_EQ(actual->sample_id, expected->sample_id);
        EXPECT_EQ(actual->tt, expected->tt);
    }

    template <class Operation>
    void Counted(Operation&& operation) {
        const auto before = vosk::test::AllocationsOfThisThread();
        operation();
        m_allocations += vosk::test::AllocationsOfThisThread() - before;
    }

    std::mt19937_64 m_random{20240611};
    std::int64_t m_now = START;
    atomclk::ManualClock m_clock{At(START)};
    Sample m_sample{At(START), 0, {}};
    std::unique_ptr<Resampler<Sample>> m_real;
    std::unique_ptr<reference::Resampler> m_model;
    std::size_t m_allocations = 0;
};

const std::vector<Stage> STAGES{{Kind::IDENTITY, 1, 1, STOP},
                                {Kind::IDENTITY},
                                {Kind::LERP, 100, 1000, STOP},
                                {Kind::LERP, 100, 100},
                                {Kind::HELD, 100, 300},
                                {Kind::DECIMATION, 300, 100},
                                {Kind::DECIMATION, 1000, 100, STOP},
                                {Kind::FILTER1},
                                {Kind::FILTER2}};

void Compare(const std::vector<Stage>& chain, int steps) {
    SCOPED_TRACE(::testing::PrintToString(chain));
    Course{chain}.Run(steps);
}

TEST(ResamplerModels, EachResamplerDoesWhatItsModelDoes) {
    for (const Stage& stage : STAGES) Compare({stage}, 50'000);
    Compare({{Kind::LERP, 7, 21, STOP}}, 50'000);  // intervals that are no whole nanoseconds
    Compare({{Kind::LERP, 1'000'000'000, 1'000'000'000}}, 50'000);
    Compare({{Kind::DECIMATION, std::size_t{1} << 40U, 1}}, 50'000);
}

TEST(ResamplerModels, EachChainDoesWhatItsModelDoes) {
    for (const Stage& first : STAGES) {
        for (const Stage& second : STAGES) {
            Compare({first, second}, 2'000);
            for (const Stage& third : STAGES) Compare({first, second, third}, 1'000);
        }
    }
}

}  // namespace
}  // namespace vosk::signal_processing::test

#pragma once

// The resamplers as simply as they can be written: whole histories where the product keeps a slot, 128-bit
// sums where it must mind the range. One thread, no locks.

#include <atomclk/atomClk.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace vosk::reference {

using atomclk::AtomClk;
using Sample = lumo::MsOutputSample;
__extension__ using Wide = __int128;

inline Wide Ns(AtomClk::time_point time) {
    return time.time_since_epoch().count();
}

inline AtomClk::time_point Narrow(Wide ns) {
    constexpr Wide END = std::numeric_limits<std::int64_t>::max();
    return AtomClk::time_point{std::chrono::nanoseconds{static_cast<std::int64_t>(ns > END ? END : ns)}};
}

class Resampler {
public:
    explicit Resampler(Wide stop) : m_stop{stop} {}
    virtual ~Resampler() = default;
    virtual bool Has() = 0;
    virtual void Add(const Sample& sample) = 0;
    virtual std::optional<Sample> Get() = 0;

protected:
    // A time beyond the last one that the clock knows is never reached but by it.
    bool IsOld(const Sample& sample) const {
        return m_stop != 0 && Narrow(Ns(sample.timestamp) + m_stop) <= AtomClk::now();
    }
    const Sample& Newest() const { return m_inputs.back(); }

    std::vector<Sample> m_inputs{Sample{}};

private:
    Wide m_stop;
};

class IdentityResampler : public Resampler {
public:
    using Resampler::Resampler;
    bool Has() override { return m_is_new && !IsOld(Newest()); }
    void Add(const Sample& sample) override {
        m_inputs.push_back(sample);
        m_is_new = true;
    }
    std::optional<Sample> Get() override {
        if (IsOld(Newest())) return {};
        m_is_new = false;
        return Newest();
    }

protected:
    bool m_is_new = false;
};

class DecimationResampler : public IdentityResampler {
public:
    DecimationResampler(std::size_t decimation, Wide stop)
        : IdentityResampler{stop}, m_decimation{decimation} {}
    void Add(const Sample& sample) override {
        const bool was_new = m_is_new;
        IdentityResampler::Add(sample);
        const bool is_due = m_inputs.size() - m_last_due >= m_decimation || sample.sample_id >= m_due_id;
        m_is_new = was_new || is_due;
        if (!is_due) return;
        m_last_due = m_inputs.size();
        m_due_id =
            static_cast<std::uint32_t>((std::uint64_t{sample.sample_id} + m_decimation) % (1ULL << 32U));
    }
    std::optional<Sample> Get() override {
        auto sample = IdentityResampler::Get();
        if (sample) sample->sample_id = ++m_reads;
        return sample;
    }

private:
    std::size_t m_decimation;
    std::size_t m_last_due = 1;  // number of the input that was due last, counted with the first empty one
    std::uint32_t m_due_id = 0;
    std::uint32_t m_reads = 0;
};

class LerpResampler : public Resampler {
public:
    LerpResampler(std::size_t in, std::size_t out, bool is_held, Wide stop)
        : Resampler{stop},
          m_in{1'000'000'000 / in},
          m_out{1'000'000'000 / out},
          m_factor{out / in},
          m_next{m_factor},
          m_is_held{is_held} {}
    bool Has() override { return m_next < m_factor && !IsOld(Newest()); }
    void Add(const Sample& sample) override {
        const bool is_first = m_inputs.size() == 1;
        m_inputs.push_back(sample);
        Wide step = is_first ? 0 : Ns(sample.timestamp) - Ns(m_inputs[m_inputs.size() - 2].timestamp);
        step = std::min(step, Wide{std::numeric_limits<std::int64_t>::max()});
        const Wide next = std::max(step, m_in) / m_out + m_next - m_factor;
        m_next = next < 0 ? 0 : next % m_factor;
        m_older = is_first ? sample : m_inputs[m_inputs.size() - 2];
    }
    std::optional<Sample> Get() override {
        if (m_inputs.size() == 1 || IsOld(Newest())) return {};
        Sample sample = Newest();
        sample.timestamp = Narrow(Ns(sample.timestamp) + m_next * m_out);
        sample.sample_id = ++m_reads;
        const double t = 1.0 + static_cast<double>(m_next) / static_cast<double>(m_factor);
        if (!m_is_held) {
            sample.tt.tip = static_cast<float>(std::lerp(double{m_older.tt.tip}, double{sample.tt.tip}, t));
            sample.tt.tilt =
                static_cast<float>(std::lerp(double{m_older.tt.tilt}, double{sample.tt.tilt}, t));
        }
        ++m_next;
        return sample;
    }

private:
    Wide m_in;  // ns
    Wide m_out;
    Wide m_factor;
    Wide m_next;
    bool m_is_held;
    Sample m_older{};
    std::uint32_t m_reads = 0;
};

using Row = std::vector<double>;

struct Filter {
    std::vector<Row> a;
    Row b;
    Row c;
    double d;
};

// Starts at zero.
class FilterResampler : public IdentityResampler {
public:
    explicit FilterResampler(Filter filter) : IdentityResampler{0}, m_filter{std::move(filter)} {}
    void Add(const Sample& sample) override {
        IdentityResampler::Add(sample);
        defs::FloatVectorTT& values = m_inputs.back().tt;
        values = {Step(m_tip, values.tip), Step(m_tilt, values.tilt)};
    }

private:
    float Step(Row& x, double u) const {
        Row next;
        double y = 0.0;
        for (std::size_t i = 0; i < x.size(); ++i) {
            y += m_filter.c[i] * x[i];
            double sum = 0.0;
            for (std::size_t j = 0; j < x.size(); ++j) sum += m_filter.a[i][j] * x[j];
            next.push_back(sum + m_filter.b[i] * u);
        }
        x = next;
        return static_cast<float>(y + m_filter.d * u);
    }

    Filter m_filter;
    Row m_tip = Row(m_filter.b.size());
    Row m_tilt = Row(m_filter.b.size());
};

class ChainResampler : public Resampler {
public:
    explicit ChainResampler(std::vector<std::unique_ptr<Resampler>> stages)
        : Resampler{0}, m_stages{std::move(stages)} {}
    bool Has() override { return Settle().Has(); }
    void Add(const Sample& sample) override {
        m_stages.front()->Add(sample);
        Settle();
    }
    std::optional<Sample> Get() override { return Settle().Get(); }

private:
    Resampler& Settle() {
        for (std::size_t i = 1; i < m_stages.size(); ++i) {
            while (!m_stages[i]->Has() && m_stages[i - 1]->Has()) m_stages[i]->Add(*m_stages[i - 1]->Get());
        }
        return *m_stages.back();
    }

    std::vector<std::unique_ptr<Resampler>> m_stages;
};

}  // namespace vosk::reference

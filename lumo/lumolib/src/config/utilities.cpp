#include <lumolib/utilities.hpp>

#include <vosk/common/logger.hpp>

#include <ratio>
#include <stdexcept>

namespace vosk::lumo {

namespace {

using oru::configng::PliConfigInstanceNode;
using oru::configng::PliConfigReview;
using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

struct CountAndUnit {
    long long count;
    std::string unit;
};

CountAndUnit SplitAtBlank(const std::string& text) {
    const auto blank = text.find(' ');
    if (blank == std::string::npos) {
        throw std::invalid_argument("GetTimeDurationParam(): invalid duration format");
    }
    return {std::stoll(text.substr(0, blank)), text.substr(blank + 1)};
}

// Rounded up. std::chrono would overflow without a word where the unit of the text is the coarser one.
template <class D, class Unit>
D CeilTo(const CountAndUnit& text) {
    using Factor = std::ratio_divide<typename Unit::period, typename D::period>;
    if constexpr (Factor::num == 1) return std::chrono::ceil<D>(Unit{text.count});
    typename D::rep count = 0;
    if (__builtin_mul_overflow(text.count, Factor::num, &count)) {
        throw std::out_of_range(
            "GetTimeDurationParam(): duration out of range: " + std::to_string(text.count) + " " + text.unit);
    }
    return D{count};
}

}  // namespace

void Refuse(const PliConfigInstanceNode& node, const std::string& key, const std::string& text) {
    PliConfigReview* const review = PliConfigReview::Current();
    if (review == nullptr) common::LogAndThrow(text);
    review->AddProblem(node, key, text);
}

void WarnOf(const PliConfigInstanceNode& node, const std::string& key, const std::string& text) {
    PliConfigReview* const review = PliConfigReview::Current();
    if (review != nullptr) return review->AddWarning(node, key, text);
    common::LogWarn("{}", text);
}

void WarnOf(const PliConfigInstanceNode& node, const std::string& text) {
    PliConfigReview* const review = PliConfigReview::Current();
    if (review != nullptr) return review->AddWarning(node, text);
    common::LogWarn("{}: {}: {}", node.GetWhere(), node.GetPath(), text);
}

bool IsGiven(const PliConfigInstanceNode& map, const std::string& key) {
    return map.Has(key) && map[key].GetKind() != oru::configng::PliConfigNodeKind::UNDEFINED;
}

pktwire::Ipv4 GetIpv4Param(const oru::configng::PliConfigInstanceNode& node, const std::string& key,
                           pktwire::Ipv4 default_value) {
    if (!node.Has(key)) return default_value;
    pktwire::Ipv4 address;
    oru::configng::Attempt(node[key], [&] { address = pktwire::Ipv4{node[key].As<std::string>()}; });
    return address;
}

template <ConfigDuration D>
D ParseDuration(const std::string& text) {
    const CountAndUnit split = SplitAtBlank(text);
    if (split.unit == "ns") return CeilTo<D, nanoseconds>(split);
    if (split.unit == "us") return CeilTo<D, microseconds>(split);
    if (split.unit == "ms") return CeilTo<D, milliseconds>(split);
    throw std::invalid_argument("GetTimeDurationParam(): unsupported duration unit: " + split.unit);
}

template nanoseconds ParseDuration<nanoseconds>(const std::string& text);
template microseconds ParseDuration<microseconds>(const std::string& text);
template milliseconds ParseDuration<milliseconds>(const std::string& text);

microseconds GetBoundedDurationParam(const oru::configng::PliConfigInstanceNode& node,
                                     const std::string& key) {
    const auto value = GetTimeDurationParam<microseconds>(node, key);
    if (value < -MAX_DURATION || value > MAX_DURATION) {
        Refuse(node, key, fmt::format("ERR: {}.{} is out of range", node.GetPath(), key));
    }
    return value;
}

microseconds GetBoundedDurationParamOr(const oru::configng::PliConfigInstanceNode& node,
                                       const std::string& key, microseconds default_value) {
    return node.Has(key) ? GetBoundedDurationParam(node, key) : default_value;
}

std::chrono::microseconds GetNonNegativeDurationParam(const PliConfigInstanceNode& node,
                                                      const std::string& key) {
    const auto value = GetBoundedDurationParam(node, key);
    if (value >= value.zero()) return value;
    Refuse(node, key, "ERR: " + node.GetPath() + "." + key + " must not be negative");
    return value.zero();
}

std::chrono::microseconds GetNonNegativeDurationParamOr(const PliConfigInstanceNode& node,
                                                        const std::string& key,
                                                        std::chrono::microseconds default_value) {
    return node.Has(key) ? GetNonNegativeDurationParam(node, key) : default_value;
}

std::chrono::milliseconds GetUpdateInterval(const PliConfigInstanceNode& node) {
    constexpr const char* KEY = "update_interval";
    const auto interval = std::chrono::ceil<std::chrono::milliseconds>(GetBoundedDurationParam(node, KEY));
    if (interval > interval.zero()) return interval;
    Refuse(node, KEY, "ERR: " + node.GetPath() + "." + KEY + " must be positive");
    return std::chrono::milliseconds{1};
}

}  // namespace vosk::lumo

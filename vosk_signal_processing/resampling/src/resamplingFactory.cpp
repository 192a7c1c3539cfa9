#include <vosk/signal_processing/resamplingFactory.hpp>

#include <algorithm>
#include <cmath>

namespace vosk::signal_processing::factory::detail {

using common::LogAndThrow;

namespace {

bool HasShape(const Matrix& matrix, std::size_t rows, std::size_t columns) {
    return matrix.GetRows() == rows && matrix.GetColumns() == columns;
}

bool IsFinite(const Matrix& matrix) {
    return std::all_of(matrix.GetData().begin(), matrix.GetData().end(),
                       [](double value) { return std::isfinite(value); });
}

}  // namespace

Duration ReadStopInterval(const PliConfigInstanceNode& stage) {
    constexpr auto LONGEST = std::chrono::floor<std::chrono::microseconds>(Duration::max());
    if (!stage.Has("timeout_us")) return Duration::zero();
    const auto timeout = stage["timeout_us"].As<unsigned long>();
    if (timeout > static_cast<unsigned long>(LONGEST.count())) {
        LogAndThrow(stage["timeout_us"].GetPath() + " is out of range");
    }
    return std::chrono::microseconds{static_cast<std::int64_t>(timeout)};
}

Rates ReadRates(const PliConfigInstanceNode& stage) {
    return {.input = stage["input_sample_rate"].As<unsigned long>(),
            .output = stage["outut_sample_rate"].As<unsigned long>(),  // the key's spelling
            .stop_interval = ReadStopInterval(stage)};
}

Coefficients ReadCoefficients(const PliConfigInstanceNode& stage) {
    return {.order = stage["order"].As<unsigned long>(),
            .a = stage["a"].As<Matrix>(),
            .b = stage["b"].As<Matrix>(),
            .c = stage["c"].As<Matrix>(),
            .d = stage["d"].As<Matrix>(),
            .initialize_state = stage.Has("initialize_state") && stage["initialize_state"].As<bool>()};
}

void CheckCoefficients(const Coefficients& coefficients) {
    const auto& [order, a, b, c, d, initialize_state] = coefficients;
    if (!HasShape(a, order, order) || !HasShape(b, order, 1) || !HasShape(c, 1, order) ||
        !HasShape(d, 1, 1)) {
        LogAndThrow("CreateFilter coefficients vector size mismatch");
    }
    if (!IsFinite(a) || !IsFinite(b) || !IsFinite(c) || !IsFinite(d)) {
        LogAndThrow("CreateFilter coefficients must be finite");
    }
}

void RefuseName(const char* function, const std::string& name) {
    LogAndThrow(std::string{function} + " could not create " + name);
}

void RefuseType(const std::string& type, const std::string& name) {
    LogAndThrow("CreateResamplerComponent could not create " + type + ": " + name);
}

void RequireMap(const PliConfigInstanceNode& stage) {
    if (!stage.IsMap()) LogAndThrow("CreateResamplerComponent node is not a map");
}

void RequireElements(const PliConfigInstanceNode& definition) {
    if (!definition.IsSequence() || definition.GetSize() == 0) {
        LogAndThrow("CreateResampler could not recognize configuration");
    }
}

}  // namespace vosk::signal_processing::factory::detail

#pragma once

// For tests: a suite that is run with each instruction set that this CPU has, and with the plain loops of
// machines for which there are no vectors.

#include <gtest/gtest.h>
#include <hwy/targets.h>

#include <cstdint>
#include <string>
#include <vector>

namespace vosk::test {

class OnEachInstructionSet : public testing::TestWithParam<std::int64_t> {
public:
    static constexpr std::int64_t PLAIN = 0;

    static auto All() {
        auto targets = hwy::SupportedAndGeneratedTargets();
        std::erase_if(targets, [](std::int64_t target) {  // other names of PLAIN
            return target == HWY_SCALAR || target == HWY_EMU128;
        });
        // A build for one kind of CPU may have no plain loops; the static vectors would then run once more.
        if (((HWY_TARGETS) & (HWY_SCALAR | HWY_EMU128)) != 0) targets.push_back(PLAIN);
        return testing::ValuesIn(targets);
    }
    static std::string Name(const testing::TestParamInfo<std::int64_t>& target) {
        return target.param == PLAIN ? "Plain" : hwy::TargetName(target.param);
    }

    OnEachInstructionSet() { hwy::GetChosenTarget().Update(GetParam()); }
    ~OnEachInstructionSet() override { hwy::GetChosenTarget().DeInit(); }
    OnEachInstructionSet(const OnEachInstructionSet&) = delete;
    OnEachInstructionSet& operator=(const OnEachInstructionSet&) = delete;
};

}  // namespace vosk::test

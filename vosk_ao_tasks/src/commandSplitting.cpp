#include <spdlog/spdlog.h>
#include <vosk/ao_tasks/commandSplitting.hpp>

#include <algorithm>

namespace vosk::ao_tasks {

CommandSplitting::CommandSplitting() {
    spdlog::trace("AO Command Splitting block: no parameters");
}

void CommandSplitting::Work(std::span<const float, defs::WAVEFRONT_CMD_SIZE> command,
                            std::span<float, defs::TIP_TILT_SIZE> first_pair,
                            std::span<float, defs::TIP_TILT_SIZE> second_pair,
                            std::span<float, defs::HIGH_ORDER_SIZE> high_order) const {
    const auto copy = [](auto from, auto to) { std::copy(from.begin(), from.end(), to.begin()); };
    copy(command.first<defs::TIP_TILT_SIZE>(), first_pair);
    copy(command.subspan<defs::TIP_TILT_SIZE, defs::TIP_TILT_SIZE>(), second_pair);
    copy(command.last<defs::HIGH_ORDER_SIZE>(), high_order);
}

}  // namespace vosk::ao_tasks

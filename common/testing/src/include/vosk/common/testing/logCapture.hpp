#pragma once

#include <vosk/test/logCapture.hpp>

namespace vosk::common {

using test::LogCapture;

}  // namespace vosk::common

#include "firstBlock.hpp"

#include <zlib.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>

namespace vosk::common {

namespace {

constexpr std::size_t BLOCK_SIZE = 2880;
constexpr std::size_t CARD_SIZE = 80;
constexpr int MAX_AXES = 99;  // of the format

using GzFile = std::unique_ptr<gzFile_s, int (*)(gzFile)>;  // also of a file that is not compressed

// Shorter, or empty, where the file ends or can't be read.
std::string ReadFirstBlock(gzFile file) {
    std::array<char, BLOCK_SIZE> block{};
    const int size = ::gzread(file, block.data(), BLOCK_SIZE);
    return {block.data(), static_cast<std::size_t>(size < 0 ? 0 : size)};
}

// Of a card "KEY     =   12 / comment".
bool HoldsNumberOfAxes(std::string_view card) {
    if (!card.starts_with("NAXIS   =")) return false;
    const std::string_view value = card.substr(std::min(card.find_first_not_of(' ', 9), card.size()));
    int axes = -1;
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), axes);
    const bool ends = end == value.data() + value.size() || *end == ' ' || *end == '/';
    return error == std::errc{} && ends && axes >= 0 && axes <= MAX_AXES;
}

}  // namespace

std::string FaultOfFile(const std::string& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error)) return error ? error.message() : "no regular file";
    const GzFile file{::gzopen(path.c_str(), "rbe"), &::gzclose};
    if (!file) return std::generic_category().message(errno);
    const std::string block = ReadFirstBlock(file.get());
    if (block.size() < BLOCK_SIZE || !block.starts_with("SIMPLE  =")) return "it does not begin as FITS does";
    // The third card of every header.
    if (!HoldsNumberOfAxes(std::string_view{block}.substr(2 * CARD_SIZE, CARD_SIZE)))
        return "its NAXIS is no number from 0 to 99";
    return {};
}

}  // namespace vosk::common

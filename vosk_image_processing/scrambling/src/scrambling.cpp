#include <fmt/format.h>
#include <vosk/common/calibrationFile.hpp>
#include <vosk/common/logger.hpp>
#include <vosk/image_processing/scrambling.hpp>

#include <algorithm>
#include <stdexcept>

namespace vosk::image_processing {

namespace {

// Two vectors of the widest kind: for less, a piece of its own is not worth the turn.
constexpr std::uint32_t SHORTEST_RUN = 16;

}  // namespace

ScramblerBase::ScramblerBase(std::size_t width, std::size_t height, std::size_t scrambled_width,
                             std::size_t scrambled_height, const defs::AlignedFrame<std::uint32_t>& scramble)
    : m_width{width},
      m_height{height},
      m_size{width * height},
      m_scrambled_size{scrambled_width * scrambled_height},
      m_scramble{scramble} {
    if (m_scramble.size() != m_size) {
        common::LogAndThrow<std::invalid_argument>(fmt::format(
            "ScramblerBase: unexpected scramble vector size: {}, expected: {}", m_scramble.size(), m_size));
    }
    CheckEntries({});
    FindPieces();
}

ScramblerBase::ScramblerBase(std::size_t width, std::size_t height, std::size_t scrambled_width,
                             std::size_t scrambled_height, const std::string& path)
    : m_width{width},
      m_height{height},
      m_size{width * height},
      m_scrambled_size{scrambled_width * scrambled_height},
      m_scramble(m_size) {
    const std::string found = common::LoadInto(m_scramble, path, {m_size}, "descrambling table");
    CheckEntries(" for: " + found);
    FindPieces();
}

void ScramblerBase::CheckEntries(const std::string& source) const {
    for (const std::uint32_t entry : m_scramble) {
        if (entry < m_scrambled_size) continue;
        common::LogAndThrow<std::invalid_argument>(
            fmt::format("ScramblerBase: idx: {} out of range: 0..{}{}", entry, m_scrambled_size, source));
    }
}

void ScramblerBase::FindPieces() {
    m_row_pieces.reserve(m_height + 1);
    for (std::size_t row = 0; row < m_height; ++row) {
        m_row_pieces.push_back(m_pieces.size());
        FindPiecesOfRow(row);
    }
    m_row_pieces.push_back(m_pieces.size());
    FindRowsAlike();
}

void ScramblerBase::FindRowsAlike() {
    for (std::size_t row = 0; row < m_height; ++row) m_rows_alike.push_back({row + 1, 0});
    for (std::size_t row = m_height; row-- > 1;) {
        const auto stride = StrideToNext(row - 1);
        if (!stride) continue;
        const Rows& next = m_rows_alike[row];
        m_rows_alike[row - 1] = {next.raw_stride == *stride ? next.stop : row + 1, *stride};
    }
}

std::optional<std::ptrdiff_t> ScramblerBase::StrideToNext(std::size_t row) const {
    const auto pieces_of = [&](std::size_t of) {
        return std::span{m_pieces}.subspan(m_row_pieces[of], m_row_pieces[of + 1] - m_row_pieces[of]);
    };
    const auto above = pieces_of(row);
    const auto below = pieces_of(row + 1);
    if (above.empty() || below.empty()) return std::nullopt;
    const auto stride_of = [](const Piece& from, const Piece& to) {
        return std::ptrdiff_t{to.source} - std::ptrdiff_t{from.source};
    };
    const std::ptrdiff_t stride = stride_of(above.front(), below.front());
    const auto is_like = [&](const Piece& from, const Piece& to) {
        return from.x_start == to.x_start && from.x_stop == to.x_stop && from.step != 0 &&
               from.step == to.step && stride_of(from, to) == stride;
    };
    if (!std::ranges::equal(above, below, is_like)) return std::nullopt;
    return stride;
}

void ScramblerBase::FindPiecesOfRow(std::size_t row) {
    const std::uint32_t* const entries = m_scramble.data() + row * m_width;
    // Of a run to the left it wraps, which becomes the negative step that it is in StepOf.
    const auto difference = [&](std::uint32_t x) { return entries[x] - entries[x - 1]; };
    for (std::uint32_t x = 0; x < m_width;) {
        const std::uint32_t start = x++;
        // At first a step is compared with itself: any two pixels are in step.
        while (x < m_width && difference(x) == difference(start + 1)) ++x;
        const std::int32_t step = StepOf({entries + start, entries + x});
        // The last pixel of a piece that is no run may be the first one of a run.
        if (step == 0 && x - start > 1 && x < m_width) --x;
        const bool goes_on = step == 0 && start != 0 && m_pieces.back().step == 0;
        if (goes_on) {
            m_pieces.back().x_stop = x;
        } else {
            m_pieces.push_back({start, x, entries[start], step});
        }
    }
}

// 0 unless the entries, which go on in equal steps, are a run.
std::int32_t ScramblerBase::StepOf(std::span<const std::uint32_t> run) const {
    if (run.size() < SHORTEST_RUN) return 0;
    const auto step = static_cast<std::int32_t>(run[1] - run[0]);
    if (step == 1) return step;
    const std::size_t last = std::max(run.front(), run.back());
    const bool is_of_a_tap = step == TAP_STEP || step == -TAP_STEP;
    return is_of_a_tap && last + TAP_STEP <= m_scrambled_size ? step : 0;
}

void ScramblerBase::RequireScrambledSize(std::size_t size, const char* operation) const {
    if (size == m_scrambled_size) return;
    common::LogAndThrow<std::invalid_argument>(
        fmt::format("{}: unexpected frame size: {}, expected: {}", operation, size, m_scrambled_size));
}

}  // namespace vosk::image_processing

#pragma once

// A camera with several readout taps delivers its pixels in the taps' order, with extra ones beside the
// image. A table puts them right: for each pixel of the image, the position of its value in the raw buffer.
// Two pixels may name the same raw value; raw values that no pixel names are dropped.
//
// Made at set-up, from a table in memory or a FITS file (one axis, 32-bit integers). The table is constant
// afterwards and may be read from any thread.

#include <vosk/defs/alignedFrame.hpp>
#include <vosk/image_processing/pixelRange.hpp>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <gsl/span>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace vosk::image_processing {

// The distance in the raw buffer between two pixels of one tap, where eight taps are clocked together and
// take turns.
inline constexpr std::int32_t TAP_STEP = 8;

class ScramblerBase {
public:
    // std::invalid_argument unless the table has width * height entries, each below scrambled_width *
    // scrambled_height.
    ScramblerBase(std::size_t width, std::size_t height, std::size_t scrambled_width,
                  std::size_t scrambled_height, const defs::AlignedFrame<std::uint32_t>& scramble);

    // The table from a file; also the errors of LoadInto.
    ScramblerBase(std::size_t width, std::size_t height, std::size_t scrambled_width,
                  std::size_t scrambled_height, const std::string& path);

protected:
    // Columns of one row whose positions go on in equal steps, a run, or those between two runs.
    struct Piece {
        std::uint32_t x_start;
        std::uint32_t x_stop;
        std::uint32_t source;  // of its first pixel, in the raw buffer
        // From a pixel to the next in the raw buffer: 1 for neighbours; TAP_STEP or -TAP_STEP for those of
        // one tap, where TAP_STEP values can be read from each pixel on, the last one too; 0 for pixels
        // that are no run: their positions stand in the table alone.
        std::int32_t step;
    };

    // Calls visit(piece) for the pieces, cut to size, that make up the columns x_start to x_stop of a row.
    // `hint` is where to look first, counted from the row's first piece, and then where the search ended:
    // rows are alike, so that a loop over rows which keeps it need not search.
    template <class Visit>
    void ForEachPiece(std::size_t row, std::size_t x_start, std::size_t x_stop, std::size_t& hint,
                      Visit&& visit) const;

    // Rows, from a given one on, whose pieces are all runs and the same but for their sources, which go on by
    // a stride.
    struct Rows {
        std::size_t stop;
        std::ptrdiff_t raw_stride;  // of one row alone: 0
    };
    Rows RowsAlike(std::size_t row) const { return m_rows_alike[row]; }

    // std::invalid_argument, in which `operation` names the function called.
    void RequireScrambledSize(std::size_t size, const char* operation) const;

    // Set in the constructors, constant afterwards.
    std::size_t m_width;
    std::size_t m_height;
    std::size_t m_size;            // pixels of the image
    std::size_t m_scrambled_size;  // elements of the raw buffer
    defs::AlignedFrame<std::uint32_t> m_scramble;

private:
    void CheckEntries(const std::string& source) const;
    void FindPieces();
    void FindPiecesOfRow(std::size_t row);
    std::int32_t StepOf(std::span<const std::uint32_t> run) const;
    void FindRowsAlike();
    // Of a row that is like the next one.
    std::optional<std::ptrdiff_t> StrideToNext(std::size_t row) const;

    // The table in short: where it goes on in equal steps, a piece says as much as all its entries, which
    // then need not be read.
    std::vector<Piece> m_pieces;            // row by row
    std::vector<std::size_t> m_row_pieces;  // the first piece of each row, and the end
    std::vector<Rows> m_rows_alike;         // by their first row
};

template <class Visit>
void ScramblerBase::ForEachPiece(std::size_t row, std::size_t x_start, std::size_t x_stop, std::size_t& hint,
                                 Visit&& visit) const {
    if (x_start == x_stop) return;
    const Piece* const first = m_pieces.data() + m_row_pieces[row];
    const Piece* piece = first + std::min(hint, m_row_pieces[row + 1] - m_row_pieces[row] - 1);
    while (piece->x_start > x_start) --piece;
    while (piece->x_stop <= x_start) ++piece;
    hint = static_cast<std::size_t>(piece - first);
    for (std::size_t x = x_start; x < x_stop; x = piece++->x_stop) {
        const auto begin = static_cast<std::uint32_t>(x);
        const auto end = static_cast<std::uint32_t>(std::min<std::size_t>(piece->x_stop, x_stop));
        const std::uint32_t source =
            piece->source + (begin - piece->x_start) * static_cast<std::uint32_t>(piece->step);
        visit(Piece{begin, end, source, piece->step});
    }
}

template <class FROM, class TO>
class Descrambler : public ScramblerBase {
public:
    // Arguments as for ScramblerBase.
    template <class Table>
    Descrambler(std::size_t width, std::size_t height, std::size_t scrambled_width,
                std::size_t scrambled_height, const Table& table)
        : ScramblerBase{width, height, scrambled_width, scrambled_height, table}, m_frame(m_size) {}

    // Puts the pixels of the ROI, or without one the whole image, into the frame; the others stay. For the
    // frame's user. std::invalid_argument, and nothing written, if `frame` isn't a raw buffer or the ROI
    // reaches out of the image; a ROI without pixels changes nothing, wherever it lies.
    void Descramble(gsl::span<const FROM> frame, const std::optional<Roi>& roi = {});

    // The image: zero until it is written.
    const defs::AlignedFrame<TO>& GetFrame() const noexcept { return m_frame; }

protected:
    defs::AlignedFrame<TO> m_frame;  // single user
};

template <class FROM, class TO>
void Descrambler<FROM, TO>::Descramble(gsl::span<const FROM> frame, const std::optional<Roi>& roi) {
    RequireScrambledSize(frame.size(), "Descramble");
    const PixelRange range = RangeOf(roi, m_width, m_height, "Descramble");
    const FROM* raw = frame.data();
    for (std::size_t row = range.y_start; row < range.y_stop; ++row) {
        for (std::size_t i = row * m_width + range.x_start; i < row * m_width + range.x_stop; ++i) {
            m_frame[i] = static_cast<TO>(raw[m_scramble[i]]);
        }
    }
}

// The geometry of LISA cameras.
struct LisaGeometry {
    static constexpr std::size_t WIDTH = 840;
    static constexpr std::size_t HEIGHT = 816;
    static constexpr std::size_t SCRAMBLED_WIDTH = 960;
    static constexpr std::size_t SCRAMBLED_HEIGHT = 816;
    static constexpr const char* TABLE = "data/scrambling/lisa_descrambling_vector.fits";
};

template <class FROM, class TO>
class LisaDescrambler : public Descrambler<FROM, TO> {
public:
    // Without a path the table is LisaGeometry::TABLE.
    explicit LisaDescrambler(const std::optional<std::string>& path = {})
        : Descrambler<FROM, TO>{LisaGeometry::WIDTH, LisaGeometry::HEIGHT, LisaGeometry::SCRAMBLED_WIDTH,
                                LisaGeometry::SCRAMBLED_HEIGHT, path.value_or(LisaGeometry::TABLE)} {}
};

}  // namespace vosk::image_processing

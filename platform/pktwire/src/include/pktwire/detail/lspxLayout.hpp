#pragma once

// Which part of an LSPX sample lies in which packet, and where each part goes in the caller's memory. One
// object for each lspx::Receiver, on its thread.

#include <pktwire/detail/sampleCollector.hpp>

namespace pktwire::lspx::detail {

// How many data units each payload packet carries; the last ones carry what is left, or nothing. Leader and
// trailer are among the frames.
std::uint32_t UnitsPerPacket(std::uint32_t num_units, std::uint16_t num_frames) noexcept;

// Where the parts of a sample lie in the caller's memory.
class PartsLayout final : public pktwire::detail::SampleLayout {
public:
    struct Config {
        std::uint8_t endianness;
        std::uint8_t leader_info_size;
        std::uint8_t trailer_info_size;
        std::uint8_t padding_size;
        std::uint8_t unit_size;
    };
    struct Parts {
        std::span<std::byte> leader_info;
        std::span<std::byte> payload;
        std::span<std::byte> trailer_info;
    };

    PartsLayout(const Config& config, std::uint16_t num_frames) noexcept;

    // True if these are not the places of the last call.
    bool SetParts(const Parts& parts) noexcept;

    std::uint16_t ExpectedFrames() const noexcept override { return m_num_frames; }
    std::span<std::byte> ExpectedPlace(std::uint16_t frame) const noexcept override;
    std::error_code Begin(const pktwire::detail::Slot& slot) noexcept override;
    std::error_code Place(const pktwire::detail::Slot& slot, std::span<std::byte>& place) noexcept override;
    std::error_code Finish() noexcept override { return {}; }

    // Checks a packet against the set-up, whatever memory it goes to.
    std::error_code CheckSetup(const pktwire::detail::Slot& slot) const noexcept;

private:
    void SetCut(std::uint16_t num_frames, std::uint32_t num_units) noexcept;
    // Of payload packets.
    std::size_t UnitsAhead(std::uint16_t frame) const noexcept;
    std::size_t UnitsIn(std::uint16_t frame) const noexcept;

    const Config m_config;
    Parts m_parts;
    std::uint16_t m_num_frames;
    std::uint32_t m_num_units = 0;
    std::uint32_t m_units_per_packet = 0;
    bool m_cut_is_guessed = true;
};

}  // namespace pktwire::lspx::detail

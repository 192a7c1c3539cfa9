#pragma once

// Which part of an LSPX sample lies in which packet, and where each part goes in the caller's memory. One
// object for each lspx::Receiver, on its thread.

#include <pktwire/detail/sampleCollector.hpp>

namespace pktwire::lspx::detail {

// How many data units each payload packet carries; the last ones carry what is left, or nothing. Leader and
// trailer are among the frames.
std::uint32_t UnitsPerPacket(std::uint32_t num_units, std::uint16_t num_frames) noexcept;

// How the data units of a sample are spread over its frames.
class Cut {
public:
    Cut(std::uint16_t num_frames, std::uint32_t num_units) noexcept;

    std::uint16_t NumFrames() const noexcept { return m_num_frames; }
    std::uint32_t NumUnits() const noexcept { return m_num_units; }
    // Of payload packets.
    std::size_t UnitsAhead(std::uint16_t frame) const noexcept;
    std::size_t UnitsIn(std::uint16_t frame) const noexcept;

private:
    std::uint16_t m_num_frames;
    std::uint32_t m_num_units;
    std::uint32_t m_units_per_packet;
};

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

    std::uint16_t ExpectedFrames() const noexcept override { return m_cut.NumFrames(); }
    std::span<std::byte> ExpectedPlace(std::uint16_t frame) const noexcept override;
    std::error_code Check(const pktwire::detail::Slot& slot) const noexcept override;
    void Begin(const pktwire::detail::Slot& slot) noexcept override;
    std::error_code Place(const pktwire::detail::Slot& slot, std::span<std::byte>& place) noexcept override;
    std::error_code Finish() noexcept override { return {}; }

    // Checks a packet against the set-up, whatever memory it goes to.
    std::error_code CheckSetup(const pktwire::detail::Slot& slot) const noexcept;
    // Checks that a packet holds the units that the cut of its sample gives it.
    std::error_code CheckUnits(const pktwire::detail::Slot& slot, const Cut& cut) const noexcept;

private:
    const Config m_config;
    Parts m_parts;
    const std::uint16_t m_max_frames;
    Cut m_cut;  // of the sample in work, or as the next one is guessed
    bool m_cut_is_guessed = true;
};

}  // namespace pktwire::lspx::detail

#include <pktwire/lspx.hpp>

#include <algorithm>

namespace pktwire::lspx::detail {

namespace {

wire::LspxKind KindOf(std::uint16_t frame, std::uint16_t num_frames) noexcept {
    if (frame == 1) return wire::LspxKind::leader;
    return frame == num_frames ? wire::LspxKind::trailer : wire::LspxKind::payload;
}

bool IsSamePlace(std::span<const std::byte> left, std::span<const std::byte> right) noexcept {
    return left.data() == right.data() && left.size() == right.size();
}

std::span<std::byte> Head(std::span<std::byte> span, std::size_t size) noexcept {
    return span.first(std::min(span.size(), size));
}

}  // namespace

PartsLayout::PartsLayout(const Config& config, std::uint16_t num_frames) noexcept
    : m_config{config}, m_max_frames{num_frames}, m_cut{num_frames, 0} {}

bool PartsLayout::SetParts(const Parts& parts) noexcept {
    if (IsSamePlace(parts.leader_info, m_parts.leader_info) && IsSamePlace(parts.payload, m_parts.payload) &&
        IsSamePlace(parts.trailer_info, m_parts.trailer_info)) {
        return false;
    }
    m_parts = parts;
    if (m_cut_is_guessed) {
        m_cut = {m_max_frames, static_cast<std::uint32_t>(parts.payload.size() / m_config.unit_size)};
    }
    return true;
}

std::span<std::byte> PartsLayout::ExpectedPlace(std::uint16_t frame) const noexcept {
    switch (KindOf(frame, m_cut.NumFrames())) {
        case wire::LspxKind::leader:
            return Head(m_parts.leader_info, m_config.leader_info_size);
        case wire::LspxKind::trailer:
            return Head(m_parts.trailer_info, m_config.trailer_info_size);
        case wire::LspxKind::payload:
            break;
    }
    const std::size_t offset = m_cut.UnitsAhead(frame) * m_config.unit_size;
    if (frame > m_cut.NumFrames() || offset > m_parts.payload.size()) return {};
    return Head(m_parts.payload.subspan(offset), m_cut.UnitsIn(frame) * m_config.unit_size);
}

std::error_code PartsLayout::Check(const pktwire::detail::Slot& slot) const noexcept {
    const std::error_code error = CheckSetup(slot);
    if (error) return error;
    const std::uint32_t num_units = slot.Lspx().num_units;
    if (std::uint64_t{num_units} * m_config.unit_size > m_parts.payload.size())
        return RxErrc::buffer_too_small;
    if (slot.packet.NumFrames() == 2 && num_units != 0) return RxErrc::payload_missing;
    return {};
}

void PartsLayout::Begin(const pktwire::detail::Slot& slot) noexcept {
    m_cut_is_guessed = false;
    m_cut = {slot.packet.NumFrames(), slot.Lspx().num_units};
}

std::error_code PartsLayout::Place(const pktwire::detail::Slot& slot, std::span<std::byte>& place) noexcept {
    std::error_code error = CheckSetup(slot);
    if (!error) error = CheckUnits(slot, m_cut);
    if (error) return error;
    const std::uint16_t frame = slot.packet.FrameNumber();
    const wire::LspxKind kind = KindOf(frame, m_cut.NumFrames());
    if (kind != wire::LspxKind::payload) {
        const auto info = kind == wire::LspxKind::leader ? m_parts.leader_info : m_parts.trailer_info;
        if (info.size() < slot.body_size) return RxErrc::extended_info_size;
        place = info.first(slot.body_size);
        return {};
    }
    place = m_parts.payload.subspan(m_cut.UnitsAhead(frame) * m_config.unit_size, slot.body_size);
    return {};
}

std::error_code PartsLayout::CheckUnits(const pktwire::detail::Slot& slot, const Cut& cut) const noexcept {
    const wire::LspxHeader& header = slot.Lspx();
    const std::uint16_t frame = slot.packet.FrameNumber();
    if (header.num_units != cut.NumUnits()) return RxErrc::unit_count;
    if (KindOf(frame, cut.NumFrames()) != wire::LspxKind::payload) return {};
    const bool fits = header.first_unit == cut.UnitsAhead(frame) + 1 &&
                      slot.body_size == cut.UnitsIn(frame) * m_config.unit_size;
    return fits ? std::error_code{} : RxErrc::unit_count;
}

std::error_code PartsLayout::CheckSetup(const pktwire::detail::Slot& slot) const noexcept {
    const wire::LspxHeader& header = slot.Lspx();
    if (slot.packet.NumFrames() < 2 || slot.packet.NumFrames() > m_max_frames)
        return qudex::RxErrc::frame_count;
    const wire::LspxKind kind = KindOf(slot.packet.FrameNumber(), slot.packet.NumFrames());
    if (header.version != wire::LSPX_VERSION || header.kind != static_cast<std::uint8_t>(kind))
        return RxErrc::header;
    if ((header.flags & LITTLE_ENDIAN_UNITS) != (m_config.endianness & LITTLE_ENDIAN_UNITS))
        return RxErrc::endianness;
    if (header.unit_size != m_config.unit_size) return RxErrc::data_unit_size;
    if (header.padding_size != m_config.padding_size) return RxErrc::padding_size;
    if (kind == wire::LspxKind::payload) return {};
    const std::size_t info_size =
        kind == wire::LspxKind::leader ? m_config.leader_info_size : m_config.trailer_info_size;
    if (header.info_size != info_size || slot.body_size != info_size) return RxErrc::extended_info_size;
    return {};
}

Cut::Cut(std::uint16_t num_frames, std::uint32_t num_units) noexcept
    : m_num_frames{num_frames},
      m_num_units{num_units},
      m_units_per_packet{UnitsPerPacket(num_units, num_frames)} {}

std::size_t Cut::UnitsAhead(std::uint16_t frame) const noexcept {
    return std::min<std::size_t>(std::size_t{m_units_per_packet} * (frame - 2U), m_num_units);
}

std::size_t Cut::UnitsIn(std::uint16_t frame) const noexcept {
    return std::min<std::size_t>(m_units_per_packet, m_num_units - UnitsAhead(frame));
}

std::uint32_t UnitsPerPacket(std::uint32_t num_units, std::uint16_t num_frames) noexcept {
    if (num_frames <= 2) return 0;
    const std::uint64_t packets = num_frames - 2U;
    return static_cast<std::uint32_t>((num_units + packets - 1) / packets);
}

}  // namespace pktwire::lspx::detail

#include <pktwire/ipv4.hpp>

#include <arpa/inet.h>

#include <array>
#include <stdexcept>

namespace pktwire {

Ipv4::Ipv4(const std::string& text) {
    if (text.empty()) return;
    in_addr address{};
    if (::inet_pton(AF_INET, text.c_str(), &address) != 1) {
        throw std::runtime_error("not an IPv4 address: \"" + text + "\"");
    }
    m_address = address;
}

Ipv4::operator std::string() const {
    if (!m_address) return {};
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &*m_address, text.data(), static_cast<socklen_t>(text.size()));
    return text.data();
}

bool Ipv4::IsMulticast() const noexcept {
    return m_address && (ntohl(m_address->s_addr) >> 28U) == 0xE;
}

in_addr Ipv4::ToNetwork() const noexcept {
    return m_address.value_or(in_addr{INADDR_ANY});
}

}  // namespace pktwire

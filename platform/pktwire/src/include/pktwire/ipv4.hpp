#pragma once

// An IPv4 address, or none: the default value and the empty text both mean "no address given".

#include <netinet/in.h>

#include <optional>
#include <string>

namespace pktwire {

class Ipv4 {
public:
    Ipv4() = default;
    // Dotted text such as "239.1.2.3". Throws std::runtime_error that quotes a text of any other form.
    explicit Ipv4(const std::string& text);

    // The dotted text; empty for no address.
    operator std::string() const;

    bool IsGiven() const noexcept { return m_address.has_value(); }
    bool IsMulticast() const noexcept;
    // INADDR_ANY for no address.
    in_addr ToNetwork() const noexcept;

    friend bool operator==(const Ipv4& left, const Ipv4& right) noexcept {
        return left.IsGiven() == right.IsGiven() && left.ToNetwork().s_addr == right.ToNetwork().s_addr;
    }

private:
    std::optional<in_addr> m_address;
};

}  // namespace pktwire

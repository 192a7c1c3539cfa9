#pragma once

// One value of a configuration document, as text, and its strict conversions.

#include <concepts>
#include <string>
#include <utility>

namespace oru::configng {

template <class T>
concept PliConfigScalar = std::same_as<T, bool> || std::same_as<T, int> || std::same_as<T, unsigned char> ||
    std::same_as<T, unsigned short> || std::same_as<T, unsigned int> || std::same_as<T, unsigned long> ||
    std::same_as<T, float> || std::same_as<T, double> || std::same_as<T, std::string>;

class PliConfigScalarValue {
public:
    PliConfigScalarValue() = default;
    PliConfigScalarValue(std::string text, bool is_quoted)
        : m_text{std::move(text)}, m_is_quoted{is_quoted} {}

    const std::string& GetText() const noexcept { return m_text; }

    // The whole text must be a value of the type, within its range, or PliConfigError tells why it is none.
    // Integers: decimal, "0x" hexadecimal or "0o" octal. Reals: decimal, ".inf", ".nan". Booleans: true and
    // false, also with a capital or in capitals. Quoted text converts to std::string alone, which takes all.
    template <PliConfigScalar T>
    T As() const;

private:
    std::string m_text;
    bool m_is_quoted{false};
};

}  // namespace oru::configng

#include <oru/configng/pliConfigScalarValue.hpp>

#include <oru/configng/pliConfigError.hpp>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <limits>
#include <string_view>
#include <system_error>

namespace oru::configng {

namespace {

// The start of a text for a message: values may be as long as a document.
std::string Excerpt(std::string_view text) {
    constexpr std::size_t LONGEST = 60;
    std::string excerpt{'"'};
    excerpt.append(text.substr(0, LONGEST));
    return excerpt.append(text.size() > LONGEST ? "...\"" : "\"");
}

[[noreturn]] void Refuse(std::string_view text, const char* why) {
    throw PliConfigError(Excerpt(text) + " is " + why);
}

bool IsOneOf(std::string_view text, std::initializer_list<std::string_view> words) {
    return std::find(words.begin(), words.end(), text) != words.end();
}

bool ToBool(std::string_view text) {
    if (IsOneOf(text, {"true", "True", "TRUE"})) return true;
    if (IsOneOf(text, {"false", "False", "FALSE"})) return false;
    Refuse(text, "neither true nor false");
}

struct Signed {
    bool is_negative;
    std::string_view rest;
};

Signed SplitSign(std::string_view text) {
    const bool has_sign = text.starts_with('-') || text.starts_with('+');
    return {text.starts_with('-'), text.substr(has_sign ? 1 : 0)};
}

template <class T>
T ToInteger(std::string_view text) {
    auto [is_negative, digits] = SplitSign(text);
    int base = 10;
    if (digits.starts_with("0x")) base = 16;
    if (digits.starts_with("0o")) base = 8;
    if (base != 10) digits.remove_prefix(2);

    unsigned long magnitude = 0;
    const char* const end = digits.data() + digits.size();
    const auto [stop, error] = std::from_chars(digits.data(), end, magnitude, base);
    if (error == std::errc::invalid_argument || stop != end) Refuse(text, "no integer");

    constexpr auto HIGHEST = static_cast<unsigned long>(std::numeric_limits<T>::max());
    constexpr unsigned long LOWEST = std::numeric_limits<T>::is_signed ? HIGHEST + 1 : 0;
    if (error == std::errc::result_out_of_range || magnitude > (is_negative ? LOWEST : HIGHEST)) {
        Refuse(text, "out of range");
    }
    return static_cast<T>(is_negative ? 0 - magnitude : magnitude);
}

template <class T>
T ToReal(std::string_view text) {
    const auto [is_negative, magnitude] = SplitSign(text);
    if (IsOneOf(magnitude, {".inf", ".Inf", ".INF"})) {
        return is_negative ? -std::numeric_limits<T>::infinity() : std::numeric_limits<T>::infinity();
    }
    if (IsOneOf(text, {".nan", ".NaN", ".NAN"})) return std::numeric_limits<T>::quiet_NaN();

    // from_chars knows "inf", "nan" and a second sign, which are no numbers here.
    const bool starts_well =
        magnitude.starts_with('.') ||
        (!magnitude.empty() && std::isdigit(static_cast<unsigned char>(magnitude[0])) != 0);
    if (!starts_well) Refuse(text, "no number");
    T value{};
    const char* const end = magnitude.data() + magnitude.size();
    const auto [stop, error] = std::from_chars(magnitude.data(), end, value);
    if (error == std::errc::invalid_argument || stop != end) Refuse(text, "no number");
    if (error == std::errc::result_out_of_range) Refuse(text, "out of range");
    return is_negative ? -value : value;
}

}  // namespace

template <PliConfigScalar T>
T PliConfigScalarValue::As() const {
    if constexpr (std::same_as<T, std::string>) {
        return m_text;
    } else {
        if (m_is_quoted) Refuse(m_text, "quoted, so it is text");
        if constexpr (std::same_as<T, bool>) return ToBool(m_text);
        if constexpr (std::floating_point<T>) return ToReal<T>(m_text);
        if constexpr (std::integral<T> && !std::same_as<T, bool>) return ToInteger<T>(m_text);
    }
}

template bool PliConfigScalarValue::As<bool>() const;
template int PliConfigScalarValue::As<int>() const;
template unsigned char PliConfigScalarValue::As<unsigned char>() const;
template unsigned short PliConfigScalarValue::As<unsigned short>() const;
template unsigned int PliConfigScalarValue::As<unsigned int>() const;
template unsigned long PliConfigScalarValue::As<unsigned long>() const;
template float PliConfigScalarValue::As<float>() const;
template double PliConfigScalarValue::As<double>() const;
template std::string PliConfigScalarValue::As<std::string>() const;

}  // namespace oru::configng

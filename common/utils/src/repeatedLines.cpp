#include "repeatedLines.hpp"

#include <cctype>
#include <iterator>
#include <string_view>

namespace vosk::common {

namespace {

constexpr std::chrono::seconds PERIOD{1};
constexpr std::size_t MOST_KINDS = 1000;  // at a time; further ones are not held back

bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

// What a number may be made of: signs, a point and an exponent too.
bool IsOfNumber(char c) {
    return IsDigit(c) || c == '.' || c == '-' || c == '+' || c == 'e';
}

bool IsOfWord(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_';
}

// FNV-1a over the text without its numbers. A digit within a word, as in M4 or GP1, belongs to the word.
std::size_t KindOf(std::string_view text) {
    std::size_t hash = 14695981039346656037U;
    bool in_word = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (IsDigit(text[i]) && !in_word) {
            while (i + 1 < text.size() && IsOfNumber(text[i + 1])) ++i;
            continue;
        }
        in_word = IsOfWord(text[i]);
        if (text[i] == '-') continue;  // mostly the sign of a number
        hash = (hash ^ static_cast<unsigned char>(text[i])) * 1099511628211U;
    }
    return hash;
}

}  // namespace

bool RepeatedLines::Admit(const LogLine& line, time_point now) {
    if (line.level < log4cplus::WARN_LOG_LEVEL) return true;
    const std::size_t hash = KindOf(line.text);
    const auto found = m_kinds.find(hash);
    if (found == m_kinds.end()) {
        if (m_kinds.size() < MOST_KINDS) m_kinds[hash].due = now + PERIOD;
        return true;
    }
    ++found->second.count;
    found->second.latest = line;
    return false;
}

void RepeatedLines::TakeCounts(time_point now,
                               const std::function<void(const LogLine&, std::uint64_t)>& write) {
    for (auto entry = m_kinds.begin(); entry != m_kinds.end();) {
        Kind& kind = entry->second;
        if (now < kind.due) {
            ++entry;
        } else if (kind.count == 0) {
            entry = m_kinds.erase(entry);
        } else {
            write(kind.latest, kind.count);
            kind.count = 0;
            kind.due = now + PERIOD;
            ++entry;
        }
    }
}

}  // namespace vosk::common

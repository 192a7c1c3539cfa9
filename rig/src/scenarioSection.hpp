#pragma once

// One map of a scenario's document, and names for values. For those who read scenarios.

#include "scenario.hpp"

#include <fmt/format.h>
#include <oru/configng/pliConfigDocument.hpp>

#include <array>
#include <stdexcept>
#include <utility>

namespace vosk::rig {

// `names`: pairs of text and value.
template <class Names, class Value>
std::string NameOf(const Names& names, Value value) {
    for (const auto& [name, candidate] : names)
        if (candidate == value) return name;
    throw std::runtime_error("Unknown enum value.");
}

inline constexpr std::array<std::pair<const char*, bool>, 2> SILENCE{{{"silent", true}, {"sending", false}}};

// A map of the document, read key by key. Whatever is wrong is thrown with its place.
class Section {
public:
    using Node = oru::configng::PliConfigInstanceNode;

    explicit Section(Node node) : m_node(std::move(node)) {
        if (!m_node.IsMap()) Fail(m_node, "a map of keys is expected here");
    }

    bool Has(const std::string& key) const { return m_node.Has(key); }

    template <class T>
    void Read(const std::string& key, T& value) const {
        if (Has(key)) value = m_node[key].As<T>();
    }

    template <class Rep, class Period>
    void ReadDuration(const std::string& key, std::chrono::duration<Rep, Period>& value) const {
        if (Has(key)) value = ReadOne<std::chrono::duration<Rep, Period>>(m_node[key], key);
    }

    template <class Duration, std::size_t N>
    void ReadDurations(const std::string& key, std::array<Duration, N>& values) const {
        if (!Has(key)) return;
        std::size_t count = 0;
        if (!m_node[key].IsSequence()) Fail(m_node[key], fmt::format("'{}' must be a list", key));
        for (const Node& element : m_node[key]) {
            if (count < N) values[count] = ReadOne<Duration>(element, key);
            ++count;
        }
        if (count != N) Fail(m_node[key], fmt::format("'{}' must have {} durations", key, N));
    }

    // Seconds as a plain number, as times in a run are given.
    void ReadSeconds(const std::string& key, Seconds& value) const {
        double count = value.count();
        ReadInRange(key, count, 0.0, 1e9);
        value = Seconds{count};
    }

    template <class T>
    void ReadInRange(const std::string& key, T& value, T low, T high) const {
        Read(key, value);
        if (!(value >= low && value <= high))
            Fail(m_node[key],
                 fmt::format("'{}' is {}, but must lie between {} and {}", key, value, low, high));
    }

    template <class Names, class Value>
    void ReadName(const std::string& key, const Names& names, Value& value) const {
        std::string text;
        Read(key, text);
        for (const auto& [name, candidate] : names) {
            if (text != name) continue;
            value = candidate;
            return;
        }
        Fail(fmt::format("'{}' can't be '{}'", key, text));
    }

    template <std::size_t N>
    void ReadNumbers(const std::string& key, std::array<std::uint32_t, N>& values) const {
        if (!Has(key)) return;
        std::size_t count = 0;
        if (!m_node[key].IsSequence()) Fail(m_node[key], fmt::format("'{}' must be a list", key));
        for (const Node& element : m_node[key]) {
            if (count < N) values[count] = element.As<std::uint32_t>();
            ++count;
        }
        if (count != N) Fail(m_node[key], fmt::format("'{}' must have {} numbers", key, N));
    }

    template <class Reader>
    void ReadSection(const std::string& key, Reader reader) const {
        if (Has(key)) reader(Section(m_node[key]));
    }

    template <class Reader>
    void ReadList(const std::string& key, Reader reader) const {
        if (!Has(key)) return;
        if (!m_node[key].IsSequence()) Fail(m_node[key], fmt::format("'{}' must be a list", key));
        for (const Node& element : m_node[key]) reader(Section(element));
    }

    [[noreturn]] void Fail(const std::string& what) const { Fail(m_node, what); }

private:
    template <class Duration>
    static Duration ReadOne(const Node& node, const std::string& key) {
        try {
            return std::chrono::duration_cast<Duration>(ParseDuration(node.As<std::string>()));
        } catch (const std::invalid_argument& error) {
            Fail(node, fmt::format("'{}': {}", key, error.what()));
        }
    }

    [[noreturn]] static void Fail(const Node& where, const std::string& what) {
        throw oru::configng::PliConfigError(what, where.GetWhere());
    }

    Node m_node;
};

}  // namespace vosk::rig

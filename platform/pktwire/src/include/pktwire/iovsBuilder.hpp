#pragma once

// A gather list over an array of the caller's: the caller appends its pieces at the tail, the library puts
// its headers into the entries that were left free ahead of the first one.

#include <gsl/span>

#include <cstddef>
#include <stdexcept>
#include <utility>

namespace pktwire {
namespace detail {

template <class T>
class IovsBuilder {
public:
    // The first `headroom` entries are left to the library. The array must outlive the builder.
    IovsBuilder(gsl::span<gsl::span<T>> entries, std::size_t headroom)
        : m_entries{entries}, m_first{headroom}, m_next{headroom} {
        if (headroom > entries.size()) throw std::runtime_error("No headroom available");
    }

    // One array has one builder: the one moved from is empty.
    IovsBuilder(IovsBuilder&& other) noexcept
        : m_entries{other.m_entries},
          m_first{other.m_first},
          m_next{std::exchange(other.m_next, other.m_first)} {}
    IovsBuilder(const IovsBuilder&) = delete;
    IovsBuilder& operator=(const IovsBuilder&) = delete;
    IovsBuilder& operator=(IovsBuilder&&) = delete;
    ~IovsBuilder() = default;

    void Append(gsl::span<T> piece) {
        if (m_next == m_entries.size()) throw std::runtime_error("No tailroom available");
        m_entries[m_next++] = piece;
    }

    // The caller has seen that Headroom() isn't 0.
    void Prepend(gsl::span<T> piece) noexcept { m_entries[--m_first] = piece; }

    std::size_t Headroom() const noexcept { return m_first; }
    std::size_t Tailroom() const noexcept { return m_entries.size() - m_next; }

    // The used entries, in order.
    gsl::span<const gsl::span<T>> Pieces() const noexcept {
        return m_entries.subspan(m_first, m_next - m_first);
    }

private:
    gsl::span<gsl::span<T>> m_entries;
    std::size_t m_first;
    std::size_t m_next;
};

}  // namespace detail

// A builder over Capacity entries that leaves what Traits needs to the library and at least Entries to the
// caller.
template <class Traits, std::size_t Entries, std::size_t Capacity>
detail::IovsBuilder<std::byte> MakeRxIovsBuilder(gsl::span<gsl::span<std::byte>, Capacity> entries) {
    static_assert(Traits::headroom + Entries <= Capacity);
    return detail::IovsBuilder<std::byte>{entries, Traits::headroom};
}

}  // namespace pktwire

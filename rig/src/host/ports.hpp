#pragma once

// UDP ports on the loopback interface for the streams between the host and its peers, one after another.

#include <cstdint>

namespace vosk::rig {

class Ports {
public:
    // Ports that nobody uses at the moment.
    static Ports Free();
    // `first` and those that follow it, used or not: for a document that is to stay the same.
    static Ports From(std::uint16_t first) { return Ports(first, Search::No); }

    // Throws std::runtime_error if no port is free.
    std::uint16_t Take();

private:
    enum class Search { No, ForFree };
    Ports(std::uint16_t next, Search search) : m_next(next), m_search(search) {}

    std::uint16_t m_next;
    Search m_search;
};

}  // namespace vosk::rig

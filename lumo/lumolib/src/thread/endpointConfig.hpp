#pragma once

// How the configuration of an endpoint's layers is read from a stream's node over the stream's defaults, and
// told in the log. A field changes only if the node is a map that holds its key. std::runtime_error, logged
// at ERROR beforehand, or a PliConfig... exception if a value is unusable.

#include <oru/configng/pliConfig.hpp>
#include <pktwire/lspx.hpp>
#include <pktwire/qudex.hpp>
#include <pktwire/udpSocket.hpp>

#include <optional>
#include <string>

namespace vosk::lumo {

pktwire::UdpRxSocket::Config ReadOver(pktwire::UdpRxSocket::Config cfg,
                                      const oru::configng::PliConfigInstanceNode& node);
pktwire::qudex::Receiver::Config ReadOver(pktwire::qudex::Receiver::Config cfg,
                                          const oru::configng::PliConfigInstanceNode& node);
pktwire::lspx::Receiver::Config ReadOver(pktwire::lspx::Receiver::Config cfg,
                                         const oru::configng::PliConfigInstanceNode& node);
pktwire::UdpTxSocket::Config ReadOver(pktwire::UdpTxSocket::Config cfg,
                                      const oru::configng::PliConfigInstanceNode& node);
pktwire::qudex::Sender::Config ReadOver(pktwire::qudex::Sender::Config cfg,
                                        const oru::configng::PliConfigInstanceNode& node);
pktwire::lspx::Sender::Config ReadOver(pktwire::lspx::Sender::Config cfg,
                                       const oru::configng::PliConfigInstanceNode& node);

// Dotted text, or nothing.
std::string TextOrNothing(const std::optional<pktwire::Ipv4>& address);

// What went into a socket, to stand behind what the socket has to say about it.
std::string Details(const pktwire::UdpRxSocket::Config& cfg);
std::string Details(const pktwire::UdpTxSocket::Config& cfg);

}  // namespace vosk::lumo

#pragma once

// The table of shared-memory topics: the kind and the record size of each, and the prefix of all their names.
// Well-known topics are built in; a thread whose configuration names a topic enters it with RegisterTopic,
// before it opens the channel. The table belongs to the process: any thread may make a ShmIf and ask it.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

namespace vosk::common::shmif {

enum class ShmType : std::uint32_t {
    SHM_RT = 1,     // a mailbox for one record: ShmWriterRT, ShmReaderRT
    SHM_QUEUE = 2,  // a queue of 100 messages: ShmWriterBoost
};

class ShmIf {
public:
    // Why nothing can be named with this prefix, or null: it begins the names of objects, and stands in
    // telemetry lines, where a blank or a comma ends a field.
    static std::optional<std::string> FaultOfPrefix(const std::string& prefix);

    // Once at start, before any channel is opened. `name` is the prefix, put in front of topics as it stands,
    // so that two systems on one machine keep apart. The prefix is empty without it. Throws
    // std::runtime_error for one that has a fault.
    static void Setup(const std::string& name);

    // Once at the end: forgets the prefix and the registered topics. Open channels keep their own names.
    static void Teardown();

    // Makes a topic known, for one named by a configuration. Registering it again in the same form is
    // harmless. Throws std::runtime_error where the name stands for another kind or size, or the size is 0.
    static void RegisterTopic(const std::string& topic, ShmType type, std::size_t size);

    // The kind of the topic, and the size of one record or message in bytes.
    // Both throw std::runtime_error for a topic that is not in the table.
    ShmType GetQueueType(const std::string& topic) const;
    std::size_t GetQueueSize(const std::string& topic) const;

    std::string GetPrefix() const;
};

// The record size of `topic`; throws std::runtime_error if it is unknown or of another kind than `type`.
std::size_t GetSizeOrThrow(const ShmIf& shm, const std::string& topic, ShmType type);

}  // namespace vosk::common::shmif

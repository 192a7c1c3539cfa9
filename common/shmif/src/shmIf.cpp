#include <vosk/common/shmif/shmIf.hpp>

#include <vosk/common/logger.hpp>
#include <vosk/defs/shmRecords.hpp>

#include <algorithm>
#include <map>
#include <mutex>

namespace vosk::common::shmif {

namespace {

struct Topic {
    ShmType type;
    std::size_t size;

    friend bool operator==(const Topic&, const Topic&) = default;
};

using TopicTable = std::map<std::string, Topic>;

constexpr std::size_t TELEMETRY_LINE_SIZE = 256;
constexpr std::size_t LONGEST_PREFIX = 128;  // the longest telemetry line fits a message with it

template <class Record>
constexpr Topic Rt() {
    return {ShmType::SHM_RT, sizeof(Record)};
}

template <class Record>
constexpr Topic TelemetryQueue() {
    return {ShmType::SHM_QUEUE, sizeof(TelemetryMessage<Record>)};
}

const TopicTable& WellKnownTopics() {
    static const TopicTable TOPICS{
        {"fs_in", Rt<FieldStablizationTopicIn>()},
        {"fs_out", Rt<FieldStablizationTopicOut>()},
        {"gpao_in", Rt<GpaoTopicIn>()},
        {"gpao_out", Rt<GpaoTopicOut>()},
        {"sim_img_gp1", Rt<defs::CentroidError>()},
        {"sim_img_gp2", Rt<defs::CentroidError>()},
        {"sim_img_gp3", Rt<defs::CentroidError>()},
        {"sim_img_pds", Rt<defs::CentroidError>()},
        {"sim_wfs_gp1", Rt<defs::WfsTopic>()},
        {"sim_wfs_gp2", Rt<defs::WfsTopic>()},
        {"sim_wfs_gp3", Rt<defs::WfsTopic>()},
        {"sim_wfs_pds", Rt<defs::WfsTopic>()},
        {"fs_in_telem", TelemetryQueue<FieldStablizationTopicIn>()},
        {"fs_out_telem", TelemetryQueue<FieldStablizationTopicOut>()},
        {"gpao_in_telem", TelemetryQueue<GpaoTopicIn>()},
        {"gpao_out_telem", TelemetryQueue<GpaoTopicOut>()},
        {"vosk_telemetry_queue", {ShmType::SHM_QUEUE, TELEMETRY_LINE_SIZE}},
    };
    return TOPICS;
}

struct SharedTable {
    std::mutex mutex;
    TopicTable topics = WellKnownTopics();  // guarded by mutex
    std::string prefix;                     // guarded by mutex
};

SharedTable& Table() {
    static SharedTable table;
    return table;
}

std::string Describe(const Topic& topic) {
    return fmt::format("{} of {} bytes", topic.type == ShmType::SHM_RT ? "an RT topic" : "a queue",
                       topic.size);
}

Topic FindOrThrow(const std::string& name) {
    SharedTable& table = Table();
    const std::lock_guard lock{table.mutex};
    const auto found = table.topics.find(name);
    if (found == table.topics.end()) {
        LogAndThrow(fmt::format("ERR: Shared-memory topic \"{}\" is unknown", name));
    }
    return found->second;
}

}  // namespace

std::optional<std::string> ShmIf::FaultOfPrefix(const std::string& prefix) {
    const auto breaks_line = [](unsigned char c) { return c <= ' ' || c == ',' || c == 0x7f; };
    if (prefix.size() <= LONGEST_PREFIX && prefix.find('/', 1) == std::string::npos &&
        std::none_of(prefix.begin(), prefix.end(), breaks_line)) {
        return std::nullopt;
    }
    return fmt::format(
        "a prefix of names in shared memory has at most {} bytes, no blank, comma or control character, and "
        "no "
        "slash but the first",
        LONGEST_PREFIX);
}

void ShmIf::Setup(const std::string& name) {
    if (const auto fault = FaultOfPrefix(name)) LogAndThrow("ERR: " + *fault);
    SharedTable& table = Table();
    const std::lock_guard lock{table.mutex};
    table.prefix = name;
}

void ShmIf::Teardown() {
    SharedTable& table = Table();
    const std::lock_guard lock{table.mutex};
    table.prefix.clear();
    table.topics = WellKnownTopics();
}

void ShmIf::RegisterTopic(const std::string& topic, ShmType type, std::size_t size) {
    if (topic.empty() || size == 0) LogAndThrow("ERR: A shared-memory topic needs a name and a size");
    const Topic wanted{type, size};
    SharedTable& table = Table();
    const std::lock_guard lock{table.mutex};
    const Topic& entered = table.topics.try_emplace(topic, wanted).first->second;
    if (entered == wanted) return;
    LogAndThrow(fmt::format("ERR: Shared-memory topic \"{}\" is {}, it can't be {}", topic, Describe(entered),
                            Describe(wanted)));
}

ShmType ShmIf::GetQueueType(const std::string& topic) const {
    return FindOrThrow(topic).type;
}

std::size_t ShmIf::GetQueueSize(const std::string& topic) const {
    return FindOrThrow(topic).size;
}

std::string ShmIf::GetPrefix() const {
    SharedTable& table = Table();
    const std::lock_guard lock{table.mutex};
    return table.prefix;
}

std::size_t GetSizeOrThrow(const ShmIf& shm, const std::string& topic, ShmType type) {
    if (shm.GetQueueType(topic) != type) {
        LogAndThrow(fmt::format("ERR: Shared-memory topic \"{}\" is no {}", topic,
                                type == ShmType::SHM_RT ? "RT topic" : "queue"));
    }
    return shm.GetQueueSize(topic);
}

}  // namespace vosk::common::shmif

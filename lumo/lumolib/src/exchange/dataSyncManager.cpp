#include <lumolib/dataSyncManager.hpp>

#include <vosk/common/logger.hpp>

#include <fmt/format.h>

#include <stdexcept>

namespace vosk::lumo {

DataSyncManager& DataSyncManager::GetInstance() {
    static DataSyncManager instance;
    return instance;
}

void DataSyncManager::CreateInstance() {
    GetInstance().Reset();
}

void DataSyncManager::Reset() {
    common::LogInfo("DataSyncManager::Reset()");
    m_data_syncs.clear();
}

std::shared_ptr<DataSync> DataSyncManager::GetDataSync(const Key& key) const {
    const auto found = m_data_syncs.find(key);
    return found == m_data_syncs.end() ? nullptr : found->second;
}

std::shared_ptr<DataSync> DataSyncManager::GetDataSyncOrThrow(const Key& key) const {
    if (auto sync = GetDataSync(key)) return sync;
    throw std::runtime_error(fmt::format("no data sync object with given type ({}) and instance id ({})",
                                         key.first.name(), key.second));
}

std::shared_ptr<DataSync> DataSyncManager::RegisterDataSync(const Key& key,
                                                            const std::shared_ptr<DataSync>& sync) {
    m_data_syncs.insert_or_assign(key, sync);
    return sync;
}

}  // namespace vosk::lumo

#pragma once

// The process-wide registry of the exchange objects. Writers and readers of an object ask for it in their
// constructors, whichever comes first. Used on the set-up thread only, before any worker runs: it has no
// lock.

#include <lumolib/dataSync.hpp>

#include <map>
#include <memory>
#include <typeindex>
#include <utility>

namespace vosk::lumo {

class DataSyncManager {
public:
    using Key = std::pair<std::type_index, int>;  // concrete class, instance tag

    static DataSyncManager& GetInstance();
    static void CreateInstance();

    DataSyncManager(const DataSyncManager&) = delete;
    DataSyncManager& operator=(const DataSyncManager&) = delete;

    // Empties the registry; objects go when their last holder goes.
    void Reset();

    // The object, or null.
    std::shared_ptr<DataSync> GetDataSync(const Key& key) const;

    // The object; std::runtime_error if there is none.
    std::shared_ptr<DataSync> GetDataSyncOrThrow(const Key& key) const;

    // Stores the object in place of what stood there, and returns it.
    std::shared_ptr<DataSync> RegisterDataSync(const Key& key, const std::shared_ptr<DataSync>& sync);

    // The one object of this class and tag, made from args if there is none yet. So the caller that comes
    // first decides the wait kind of a waitable object; what later callers pass is dropped.
    template <class T, class... Args>
    std::shared_ptr<T> GetOrRegisterDataSync(const typename T::InstanceTag& tag, Args&&... args) {
        const Key key{typeid(T), static_cast<int>(tag)};
        if (auto sync = GetDataSync(key)) return std::static_pointer_cast<T>(std::move(sync));
        auto sync = std::make_shared<T>(std::forward<Args>(args)...);
        RegisterDataSync(key, sync);
        return sync;
    }

private:
    DataSyncManager() = default;

    std::map<Key, std::shared_ptr<DataSync>> m_data_syncs;
};

// The only instance of a class, as a thread's constructor asks for it: an object that is polled, and one for
// which a thread waits.
template <class T>
std::shared_ptr<T> Exchange() {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<T>(typename T::InstanceTag{});
}

template <class T>
std::shared_ptr<T> WaitableExchange(bool busy) {
    return DataSyncManager::GetInstance().GetOrRegisterDataSync<T>(typename T::InstanceTag{}, busy);
}

}  // namespace vosk::lumo

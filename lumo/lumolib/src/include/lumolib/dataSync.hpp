#pragma once

// The exchange objects through which worker threads meet. An object holds the newest record of its kind, no
// queue: a writer overwrites, a reader sees the newest state. What is stored, and how, is the business of a
// small setter class; waking the reader is that of the waitable forms. The concrete objects stand in
// dataSyncCatalogue.hpp; threads find them through dataSyncManager.hpp, in their constructors.
//
// A reader that is woken: wait on GetSynchronizer(), then ClearDataReady(), then read. A write that comes
// during the read sets the flags again, so that the next wait returns at once. Or it reads and clears under
// one shared lock: then a notification may come behind its record, and IsNewData() is false. A reader that
// polls: read; if IsNewData(), use the record and ClearNewData().
//
// Records are members of fixed size: nothing here allocates after construction.

#include <vosk/common/waitSynchronizer.hpp>
#include <vosk/defs/sizes.hpp>
#include <vosk/defs/valueTypes.hpp>

#include <atomclk/atomClk.hpp>

#include <atomic>
#include <functional>
#include <mutex>
#include <shared_mutex>
#include <utility>

namespace vosk::lumo {

using defs::sample_id_t;
using defs::time_point;

// The time as given or, where a writer gave none (count 0), the present time.
inline time_point GivenOrNow(const time_point& time) noexcept {
    return time == time_point{} ? atomclk::AtomClk::now() : time;
}

// The common base, so that all objects fit into one registry.
class DataSync {
public:
    DataSync() = default;
    virtual ~DataSync() = default;
    DataSync(const DataSync&) = delete;
    DataSync& operator=(const DataSync&) = delete;
};

// An object on which a thread can wait, through a synchroniser of its own that spins or sleeps.
class DataSyncWaitable : public DataSync, public common::WaitSynchronizerFlag {
public:
    explicit DataSyncWaitable(bool busy) : common::WaitSynchronizerFlag(busy) {}
};

// A setter's SetData runs under the exclusive lock. It stores the values into the record, converting them
// from the wire where needed, and the sample ID and a time into the two atomics. This one takes the record.
template <class T, class = void>
struct BasicDataSetter {
    void SetData(T& data, std::atomic<sample_id_t>& sample_id, std::atomic<time_point>& timestamp,
                 const T& value, sample_id_t id, const time_point& time = {}) const {
        data = value;
        sample_id = id;
        timestamp = GivenOrNow(time);
    }
};

// One record with its lock. One thread writes it; any thread may read it.
template <class T, class Setter>
class SyncDataAttribute {
public:
    // on_data_set runs on the writer's thread after each write, outside the lock. It must not block.
    explicit SyncDataAttribute(std::function<void()> on_data_set = {})
        : m_on_data_set(std::move(on_data_set)) {}
    virtual ~SyncDataAttribute() = default;
    SyncDataAttribute(const SyncDataAttribute&) = delete;
    SyncDataAttribute& operator=(const SyncDataAttribute&) = delete;

    // SetData(<values of the setter...>, sample_id_t id, const time_point& time = {})
    template <class... Values>
    void SetData(Values&&... values) {
        {
            std::unique_lock lock(m_mutex);
            m_setter.SetData(m_data, m_sample_id, m_timestamp, std::forward<Values>(values)...);
            m_new_data = true;
        }
        if (m_on_data_set) m_on_data_set();
    }

    // A copy, taken under the shared lock.
    T GetData() const {
        std::shared_lock lock(m_mutex);
        return m_data;
    }

    // Without the lock these two may already belong to a newer record than the one read next; read with the
    // lock held shared, they belong to the record.
    sample_id_t GetSampleId() const noexcept { return m_sample_id; }
    time_point GetTimestamp() const noexcept { return m_timestamp; }

    // Whether anything was written since the reader last cleared the flag. May be cleared under a shared
    // lock.
    bool IsNewData() const noexcept { return m_new_data; }
    void ClearNewData() noexcept { m_new_data = false; }

    // For records too large to copy: the caller holds the mutex, shared to read, exclusive to write, for as
    // long as it uses the reference.
    std::shared_mutex& GetMutex() noexcept { return m_mutex; }
    T& GetDataRef() noexcept { return m_data; }

protected:
    static_assert(std::atomic<time_point>::is_always_lock_free);

    T m_data{};  // guarded by m_mutex
    mutable std::shared_mutex m_mutex;
    std::atomic<bool> m_new_data{};          // set under the exclusive lock
    std::atomic<sample_id_t> m_sample_id{};  // written under the exclusive lock
    std::atomic<time_point> m_timestamp{};   // written under the exclusive lock
    Setter m_setter{};
    std::function<void()> m_on_data_set;  // constant after construction
};

// An attribute whose setter decides, write by write, whether the reader is woken: it gets a flag to set for
// that, after the two atomics. IsNewData() rises on every write all the same.
template <class T, class Setter>
class SyncDataAttributeTrigger : public SyncDataAttribute<T, Setter> {
public:
    using SyncDataAttribute<T, Setter>::SyncDataAttribute;

    // As in SyncDataAttribute.
    template <class... Values>
    void SetData(Values&&... values) {
        std::atomic_flag trigger;
        {
            std::unique_lock lock(this->m_mutex);
            this->m_setter.SetData(this->m_data, this->m_sample_id, this->m_timestamp, trigger,
                                   std::forward<Values>(values)...);
            this->m_new_data = true;
        }
        if (this->m_on_data_set && trigger.test()) this->m_on_data_set();
    }
};

namespace detail {

// An object with one attribute, whose operations it offers as its own.
template <class Base, class T, class Attribute>
class DataSyncOf : public Base {
public:
    using Record = T;

    template <class... Values>
    void SetData(Values&&... values) {
        m_attribute.SetData(std::forward<Values>(values)...);
    }

    T GetData() const { return m_attribute.GetData(); }
    sample_id_t GetSampleId() const noexcept { return m_attribute.GetSampleId(); }
    time_point GetTimestamp() const noexcept { return m_attribute.GetTimestamp(); }
    bool IsNewData() const noexcept { return m_attribute.IsNewData(); }
    void ClearNewData() noexcept { m_attribute.ClearNewData(); }
    std::shared_mutex& GetMutex() noexcept { return m_attribute.GetMutex(); }
    T& GetDataRef() noexcept { return m_attribute.GetDataRef(); }

protected:
    DataSyncOf() = default;
    DataSyncOf(bool busy, std::function<void()> on_data_set)
        : Base(busy), m_attribute(std::move(on_data_set)) {}

    Attribute m_attribute;
};

// The same, with a thread that waits for it: a write, or with a trigger attribute a write that says so, sets
// the ready flag.
template <class T, class Attribute>
class DataSyncWaitableOf : public DataSyncOf<DataSyncWaitable, T, Attribute> {
public:
    // Clears both ready flags: that of the record, then that of the waiting thread.
    void ClearDataReady() override {
        this->ClearNewData();
        DataSyncWaitable::ClearDataReady();
    }

protected:
    explicit DataSyncWaitableOf(bool busy)
        : DataSyncOf<DataSyncWaitable, T, Attribute>(busy, [this] { this->SetDataReady(); }) {}
};

}  // namespace detail

// A record that is polled.
template <class T, class Setter>
class DataSyncSingle : public detail::DataSyncOf<DataSync, T, SyncDataAttribute<T, Setter>> {};

// A record on which a thread waits; every write wakes it.
template <class T, class Setter>
class DataSyncSingleWaitable : public detail::DataSyncWaitableOf<T, SyncDataAttribute<T, Setter>> {
public:
    explicit DataSyncSingleWaitable(bool busy)
        : detail::DataSyncWaitableOf<T, SyncDataAttribute<T, Setter>>(busy) {}
};

// A record on which a thread waits; the setter says which writes wake it.
template <class T, class Setter>
class DataSyncTrigger : public detail::DataSyncWaitableOf<T, SyncDataAttributeTrigger<T, Setter>> {
public:
    explicit DataSyncTrigger(bool busy)
        : detail::DataSyncWaitableOf<T, SyncDataAttributeTrigger<T, Setter>>(busy) {}
};

}  // namespace vosk::lumo

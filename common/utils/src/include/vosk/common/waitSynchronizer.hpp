#pragma once

// How a worker thread waits: spinning on a CPU of its own, or asleep on a condition variable. A synchroniser
// watches flags; a thread waits on it until one of them is ready, until one is not ready, or until a time has
// come. Exchange objects and resamplers are flags, and one synchroniser can watch several of them, so that a
// thread with several inputs has one wait.
//
// Threads: one at a time waits on a synchroniser for a ready flag, and one more may wait there for the flag
// to be cleared. Anyone may set, clear and read flags and notify, at any time; none of that ever blocks on a
// waiter. Lock order: CVSynchronizer's m_cv_mutex, then m_flags_mutex.

#include <atomclk/atomClk.hpp>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

namespace vosk::common {

class WaitSynchronizerFlagBase;

// The run flag of a thread: 1 while it is to go on. Relaxed: only its visibility matters, it orders nothing.
inline bool IsRunning(const int& running) noexcept {
    return __atomic_load_n(&running, __ATOMIC_RELAXED) != 0;
}
inline void SetRunning(int& running, bool run) noexcept {
    std::atomic_ref<int>(running).store(run ? 1 : 0, std::memory_order_relaxed);
}

class WaitSynchronizer {
public:
    WaitSynchronizer();
    virtual ~WaitSynchronizer() = default;
    WaitSynchronizer(const WaitSynchronizer&) = delete;
    WaitSynchronizer& operator=(const WaitSynchronizer&) = delete;

    // The waits return true if the thread is to go on, false if `running` was 0 when the wait ended. Neither
    // says whether a flag or the time ended it: the caller looks at its flags or the clock.
    // Without flags, only the time or the run flag ends them.

    // Until some flag is ready.
    virtual bool Wait(const int& running) = 0;

    // Until some flag is ready or AtomClk has reached `time`, or was set back by more than a second during
    // the wait: a caller that finds neither flag nor time gives its deadline up. Asleep it sees a stop, a
    // clock that was set, or a notification that came between its test and its sleep, within 10 ms.
    virtual bool WaitUntil(const atomclk::AtomClk::time_point& time, const int& running) = 0;

    // Until some flag is not ready.
    virtual bool WaitForNotReady(const int& running) = 0;

    // Until some flag is not ready or AtomClk has reached `time`; as WaitUntil.
    virtual bool WaitForNotReadyUntil(const atomclk::AtomClk::time_point& time, const int& running) = 0;

    // Lets a sleeping waiter look again.
    virtual void Notify() = 0;

    bool IsAnyFlagReady();
    bool IsAnyFlagNotReady();

    void RegisterFlag(WaitSynchronizerFlagBase& flag);
    // An unknown flag is no error. When it returns, no thread is looking at the flag any more.
    void UnregisterFlag(WaitSynchronizerFlagBase& flag);

protected:
    // For a waiter that spins: whether some flag is ready, or is not. False also where another thread is at
    // the list: a lock that is waited for would be a system call.
    bool SeesAnyFlag(bool ready);

private:
    std::vector<WaitSynchronizerFlagBase*> m_flags;  // not owned; guarded by m_flags_mutex
    std::mutex m_flags_mutex;
};

// For a thread with a CPU of its own: spins without pause, and needs no notification.
class BusyWaitSynchronizer : public WaitSynchronizer {
public:
    bool Wait(const int& running) override;
    bool WaitUntil(const atomclk::AtomClk::time_point& time, const int& running) override;
    bool WaitForNotReady(const int& running) override;
    bool WaitForNotReadyUntil(const atomclk::AtomClk::time_point& time, const int& running) override;
    void Notify() override {}
};

// For a thread that shares its CPU. Notify takes no lock, so that a writer never waits for a waiter; the
// price is that a wait without a deadline looks again every 500 us.
class CVSynchronizer : public WaitSynchronizer {
public:
    bool Wait(const int& running) override;
    bool WaitUntil(const atomclk::AtomClk::time_point& time, const int& running) override;
    bool WaitForNotReady(const int& running) override;
    bool WaitForNotReadyUntil(const atomclk::AtomClk::time_point& time, const int& running) override;
    void Notify() override { m_cv.notify_all(); }

private:
    using FlagTest = bool (WaitSynchronizer::*)();
    bool WaitFor(FlagTest done, const int& running);
    bool WaitForUntil(FlagTest done, const atomclk::AtomClk::time_point& time, const int& running);

    std::condition_variable m_cv;
    std::mutex m_cv_mutex;  // held while testing the flags, for m_cv alone
};

std::shared_ptr<WaitSynchronizer> MakeWaitSynchronizer(bool busy);

// Something a thread can wait for. Holds its synchroniser alive and is registered there until it is
// destroyed. A class that derives straight from this one is registered before it is whole: construct it while
// nobody waits on the synchroniser, and call Unregister() first in its destructor.
class WaitSynchronizerFlagBase {
public:
    // Throws std::invalid_argument if there is no synchroniser.
    explicit WaitSynchronizerFlagBase(std::shared_ptr<WaitSynchronizer> synchronizer);
    // Makes a synchroniser of its own.
    explicit WaitSynchronizerFlagBase(bool busy);
    virtual ~WaitSynchronizerFlagBase();
    WaitSynchronizerFlagBase(const WaitSynchronizerFlagBase&) = delete;
    WaitSynchronizerFlagBase& operator=(const WaitSynchronizerFlagBase&) = delete;

    // Called with the synchroniser's flag list locked: it must not call back into the synchroniser.
    virtual bool IsDataReady() = 0;
    // Here the state belongs to the derived class; these two only let the waiter look again.
    virtual void SetDataReady();
    virtual void ClearDataReady();

    // Set-up only, before any thread uses this flag. Throws as the constructor.
    void ReplaceSynchronizer(std::shared_ptr<WaitSynchronizer> synchronizer);
    // For the thread that waits.
    const std::shared_ptr<WaitSynchronizer>& GetSynchronizer() const noexcept { return m_synchronizer; }

protected:
    struct RegisterLater {};
    WaitSynchronizerFlagBase(std::shared_ptr<WaitSynchronizer> synchronizer, RegisterLater);
    void Register() { m_synchronizer->RegisterFlag(*this); }
    void Unregister() { m_synchronizer->UnregisterFlag(*this); }

private:
    std::shared_ptr<WaitSynchronizer> m_synchronizer;  // never null; constant while threads run
};

// A flag that is a flag: set by the writer of new data, cleared by its reader. May be made and destroyed
// while others wait on its synchroniser; so may a derived class that calls Unregister() first in its
// destructor.
class WaitSynchronizerFlag : public WaitSynchronizerFlagBase {
public:
    explicit WaitSynchronizerFlag(std::shared_ptr<WaitSynchronizer> synchronizer);
    explicit WaitSynchronizerFlag(bool busy);
    ~WaitSynchronizerFlag() override;

    bool IsDataReady() override { return m_data_ready.load(); }
    void SetDataReady() override;
    void ClearDataReady() override;

private:
    // Set sequentially consistent: what the writer stored before it is seen by the waiter it wakes.
    std::atomic<bool> m_data_ready{false};
};

}  // namespace vosk::common

#pragma once

// A fork-join pool for one real-time loop. Each worker is a thread of its own that holds one fixed task:
// Run() wakes all workers, each runs its task once, and the same tasks run again at the next Run(). The
// thread that owns the pool may have a task too, and the worker that finishes last runs the completion task.
//
// Threads: the owner alone makes and fills the pool, runs it, waits for it and destroys it. Owner and worker
// share the worker's ready flag only, which is set while its task is pending or running. The pool catches
// nothing: an exception that leaves a worker's task or the completion task ends the process.

#include <nodepin/numaPlacement.hpp>
#include <oru/configng/pliConfig.hpp>
#include <vosk/common/threadState.hpp>
#include <vosk/common/waitSynchronizer.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace vosk::common {

class NumaThreadPool {
public:
    // No workers yet, and room for that many.
    explicit NumaThreadPool(std::size_t workers);
    // A worker for each element of the sequence `key`; without a sequence no workers. Keys of an element that
    // is a map: `thread_name`, `numa_buf_size`, `cpu`, `busy` and `priority`; others have the defaults,
    // `busy` that of the argument. Throws PliConfigError on a value that can't be used, std::system_error as
    // ProvisionWorker().
    NumaThreadPool(const oru::configng::PliConfigInstanceNode& node, const std::string& key, bool busy);
    // Wakes nobody: returns when each worker has seen the stop and finished the task that it was running.
    virtual ~NumaThreadPool();
    NumaThreadPool(const NumaThreadPool&) = delete;
    NumaThreadPool& operator=(const NumaThreadPool&) = delete;

    std::size_t GetSize() const noexcept { return m_workers.size(); }
    // In the order in which they were added.
    std::vector<ThreadState> GetStates() const;

    // Provisioning stands before the first Run(), or between runs that are over.

    // Adds a worker, with locked memory on the node of its CPU where the machine has it, and returns when its
    // thread is named and placed. A negative CPU is none. A `single_run` worker ends after the first Run(),
    // which is then the only one. Throws std::system_error, with the pool as it was, if there can be no such
    // thread. Under a PliConfigReview no thread is started: it could take the CPU of one that is at work.
    void ProvisionWorker(const std::string& thread_name, std::size_t numa_buf_size, int cpu, bool busy,
                         bool single_run, int priority = nodepin::default_priority);

    // `idx` counts workers in the order in which they were added.

    // Set-up: runs `step`, and returns or throws as it does. What `step` allocates lies on the worker's node,
    // if there is one.
    void RunOnNodeOf(std::size_t idx, std::function<void()> step) const;
    void ProvisionTask(std::size_t idx, std::function<void()> task);
    // To the first worker without a task; false if there is none.
    bool ProvisionTask(std::function<void()> task);
    void ProvisionMainThreadTask(std::function<void()> task);
    void ProvisionCompletionTask(std::function<void()> task);

    // Waits for the previous run, wakes all workers and runs the main thread's task. Without workers it runs
    // the completion task too.
    void Run();

    // Returns when all workers are idle and the completion task is done. True if a worker was still at it
    // when its turn came to be looked at: the run has taken longer than the caller.
    bool Wait() const;

private:
    struct Worker {
        Worker(std::size_t numa_buf_size, ThreadState state);

        std::thread m_thread;
        ThreadState m_state;
        nodepin::NumaPlacement m_placement;
        std::function<void()> m_task;  // written by the owner while the flag is clear
        std::shared_ptr<WaitSynchronizerFlag> m_synchronizer_flag;
    };

    void Work(const Worker& worker, bool single_run);

    std::vector<Worker> m_workers;  // threads hold references to its elements, so it never reallocates
    int m_running = 1;              // 0 in the destructor
    std::atomic<std::uint64_t> m_done_count{0};  // workers that have finished this run
    std::function<void()> m_main_thread_task;
    std::function<void()> m_completion_task;
};

}  // namespace vosk::common

#include <fmt/format.h>
#include <oru/configng/pliConfigReview.hpp>
#include <vosk/common/assert.hpp>
#include <vosk/common/numaThreadPool.hpp>

#include <future>
#include <utility>

namespace vosk::common {

namespace {

using oru::configng::PliConfigError;
using oru::configng::PliConfigInstanceNode;
using oru::configng::PliConfigReview;

template <class T>
void Read(const PliConfigInstanceNode& map, const char* key, T& value) {
    if (map.Has(key)) value = map[key].As<T>();
}

void ReadPriority(const PliConfigInstanceNode& map, int& priority) {
    Read(map, "priority", priority);
    if (priority >= 0 && priority <= nodepin::MAX_PRIORITY) return;
    oru::configng::Attempt(map["priority"], [&map] {
        throw PliConfigError{
            fmt::format("ERR: {}.priority must lie between 0 and {}", map.GetPath(), nodepin::MAX_PRIORITY),
            map["priority"].GetWhere()};
    });
}

PliConfigInstanceNode ListIn(const PliConfigInstanceNode& node, const std::string& key) {
    if (node.IsMap() && node.Has(key) && node[key].IsSequence()) return node[key];
    return {};
}

std::size_t SizeOf(const PliConfigInstanceNode& list) {
    return list.IsSequence() ? list.GetSize() : 0;
}

}  // namespace

NumaThreadPool::Worker::Worker(std::size_t numa_buf_size, ThreadState state)
    : m_state{std::move(state)},
      m_synchronizer_flag{std::make_shared<WaitSynchronizerFlag>(m_state.placement.busy)} {
    m_placement.SetPriority(m_state.placement.priority);
    if (m_placement.BindTo(m_state.placement.cpu) && numa_buf_size != 0) {
        static_cast<void>(m_placement.ProvideBuffer(numa_buf_size));  // an arena is of use, no condition
    }
}

NumaThreadPool::NumaThreadPool(std::size_t workers) {
    m_workers.reserve(workers);
}

// The pool is whole when the first worker starts, so that its destructor ends those before one that fails.
NumaThreadPool::NumaThreadPool(const PliConfigInstanceNode& node, const std::string& key, bool busy)
    : NumaThreadPool{SizeOf(ListIn(node, key))} {
    const PliConfigInstanceNode list = ListIn(node, key);
    for (std::size_t i = 0; i < SizeOf(list); ++i) {
        std::string name = fmt::format("pool_th_{}", i);
        std::size_t numa_buf_size = 0;
        int cpu = -1;
        bool is_busy = busy;
        int priority = nodepin::default_priority;
        if (const PliConfigInstanceNode element = list[i]; element.IsMap()) {
            Read(element, "thread_name", name);
            Read(element, "numa_buf_size", numa_buf_size);
            Read(element, "cpu", cpu);
            Read(element, "busy", is_busy);
            ReadPriority(element, priority);
        }
        ProvisionWorker(name, numa_buf_size, cpu, is_busy, false, priority);
    }
}

NumaThreadPool::~NumaThreadPool() {
    SetRunning(m_running, false);
    for (Worker& worker : m_workers) {
        if (worker.m_thread.joinable()) worker.m_thread.join();
    }
}

void NumaThreadPool::ProvisionWorker(const std::string& thread_name, std::size_t numa_buf_size, int cpu,
                                     bool busy, bool single_run, int priority) {
    VOSK_ASSERT(m_workers.size() < m_workers.capacity());
    Worker& worker =
        m_workers.emplace_back(numa_buf_size, ThreadState{thread_name, {cpu, busy, priority, 0}});
    if (PliConfigReview::Current() != nullptr) return;
    std::promise<int> priority_given;
    auto priority_of_worker = priority_given.get_future();
    try {
        worker.m_thread =
            nodepin::MakeThread(thread_name, worker.m_placement.Policies(),
                                [this, &worker, single_run, given = std::move(priority_given)]() mutable {
                                    given.set_value(nodepin::PriorityOfThisThread());
                                    Work(worker, single_run);
                                });
        worker.m_state.placement.priority_given = priority_of_worker.get();
    } catch (...) {
        m_workers.pop_back();
        throw;
    }
}

// On a thread of its own, as memory that others have freed may lie on any node.
void NumaThreadPool::RunOnNodeOf(std::size_t idx, std::function<void()> step) const {
    const auto& on_node = m_workers[idx].m_placement.Policies().mem_policy;
    if (!on_node || PliConfigReview::Current() != nullptr) return step();
    std::packaged_task<void()> task{std::move(step)};
    auto done = task.get_future();
    nodepin::MakeThread("placing", {{}, on_node, 0}, std::move(task)).join();
    done.get();
}

std::vector<ThreadState> NumaThreadPool::GetStates() const {
    std::vector<ThreadState> states;
    for (const Worker& worker : m_workers) states.push_back(worker.m_state);
    return states;
}

void NumaThreadPool::ProvisionTask(std::size_t idx, std::function<void()> task) {
    VOSK_ASSERT(idx < m_workers.size());
    VOSK_ASSERT(!m_workers[idx].m_synchronizer_flag->IsDataReady());
    m_workers[idx].m_task = std::move(task);
}

bool NumaThreadPool::ProvisionTask(std::function<void()> task) {
    for (std::size_t idx = 0; idx < m_workers.size(); ++idx) {
        if (m_workers[idx].m_task) continue;
        ProvisionTask(idx, std::move(task));
        return true;
    }
    return false;
}

void NumaThreadPool::ProvisionMainThreadTask(std::function<void()> task) {
    m_main_thread_task = std::move(task);
}

void NumaThreadPool::ProvisionCompletionTask(std::function<void()> task) {
    m_completion_task = std::move(task);
}

void NumaThreadPool::Run() {
    Wait();
    m_done_count.store(0);
    for (Worker& worker : m_workers) {
        VOSK_ASSERT(!worker.m_synchronizer_flag->IsDataReady());
        worker.m_synchronizer_flag->SetDataReady();
    }
    if (m_main_thread_task) m_main_thread_task();
    if (m_workers.empty() && m_completion_task) m_completion_task();
}

bool NumaThreadPool::Wait() const {
    bool was_busy = false;
    for (const Worker& worker : m_workers) {
        if (!worker.m_synchronizer_flag->IsDataReady()) continue;
        was_busy = true;
        worker.m_synchronizer_flag->GetSynchronizer()->WaitForNotReady(m_running);
    }
    return was_busy;
}

// A worker without a task counts too, and may be the last. The flag clears behind all that belongs to the
// run.
void NumaThreadPool::Work(const Worker& worker, bool single_run) {
    const auto synchronizer = worker.m_synchronizer_flag->GetSynchronizer();
    while (synchronizer->Wait(m_running)) {
        if (worker.m_task) worker.m_task();
        const bool is_last = m_done_count.fetch_add(1) + 1 == m_workers.size();
        if (is_last && IsRunning(m_running) && m_completion_task) m_completion_task();
        worker.m_synchronizer_flag->ClearDataReady();
        if (single_run) return;
    }
}

}  // namespace vosk::common

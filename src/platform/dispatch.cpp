#include "platform/dispatch.h"

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <future>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

namespace quendral::dispatch {
namespace {

using Clock = std::chrono::steady_clock;

// Queues whose tasks the calling thread is running right now (innermost last).
thread_local std::vector<const Queue*> tCurrentQueues;

class CurrentQueueScope {
public:
    explicit CurrentQueueScope(const Queue* queue) { tCurrentQueues.push_back(queue); }
    ~CurrentQueueScope() { tCurrentQueues.pop_back(); }
    CurrentQueueScope(const CurrentQueueScope&) = delete;
    CurrentQueueScope& operator=(const CurrentQueueScope&) = delete;
};

bool runningOn(const Queue* queue)
{
    return std::find(tCurrentQueues.begin(), tCurrentQueues.end(), queue) != tCurrentQueues.end();
}

std::atomic<std::thread::id>& mainThreadId()
{
    static std::atomic<std::thread::id> id{std::this_thread::get_id()};
    return id;
}
// Taken during static initialisation, which runs on the thread that starts the program.
[[maybe_unused]] const bool gMainThreadNoted = (mainThreadId(), true);

std::atomic<MainQueueBackend*> gBackend{nullptr};

// --- global queue: a pool that grows a worker whenever no idle one can take a task.
class GlobalQueue final : public Queue {
public:
    GlobalQueue() : Queue("global.default") {}

    void async(Task task) override
    {
        std::unique_lock lock(_mutex);
        _tasks.push_back(std::move(task));
        if (_tasks.size() > _idle) {
            ++_threads;
            lock.unlock();
            std::thread([this] { work(); }).detach();
            return;
        }
        lock.unlock();
        _wake.notify_one();
    }

    [[nodiscard]] bool isCurrent() const override { return runningOn(this); }

private:
    void work()
    {
        std::unique_lock lock(_mutex);
        for (;;) {
            if (_tasks.empty()) {
                ++_idle;
                const bool woke = _wake.wait_for(lock, std::chrono::seconds(20), [this] { return !_tasks.empty(); });
                --_idle;
                if (!woke) {
                    --_threads;
                    return;
                }
            }
            Task task = std::move(_tasks.front());
            _tasks.pop_front();
            lock.unlock();
            {
                CurrentQueueScope scope(this);
                task();
            }
            task = nullptr; // release captures outside the lock
            lock.lock();
        }
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::deque<Task> _tasks;
    std::size_t _idle = 0;
    std::size_t _threads = 0;
};

// --- serial queue: one task at a time, in order, borrowed from the global queue.
class SerialQueue final : public Queue {
public:
    explicit SerialQueue(std::string label) : Queue(std::move(label)) {}

    void async(Task task) override
    {
        std::unique_lock lock(_mutex);
        _tasks.push_back(std::move(task));
        if (_draining) {
            return;
        }
        _draining = true;
        lock.unlock();
        startDraining();
    }

    bool asyncUnlessIdleAnd(const std::function<bool()>& unneeded, Task task) override
    {
        std::unique_lock lock(_mutex);
        if (!_draining && unneeded()) {
            return false;
        }
        _tasks.push_back(std::move(task));
        if (_draining) {
            return true;
        }
        _draining = true;
        lock.unlock();
        startDraining();
        return true;
    }

    [[nodiscard]] bool isCurrent() const override { return runningOn(this); }

private:
    void startDraining()
    {
        auto self = std::static_pointer_cast<SerialQueue>(shared_from_this());
        globalQueue()->async([self] { self->drain(); });
    }

    void drain()
    {
        CurrentQueueScope scope(this);
        std::unique_lock lock(_mutex);
        while (!_tasks.empty()) {
            Task task = std::move(_tasks.front());
            _tasks.pop_front();
            lock.unlock();
            task();
            task = nullptr;
            lock.lock();
        }
        _draining = false;
    }

    std::mutex _mutex;
    std::deque<Task> _tasks;
    bool _draining = false;
};

class MainQueue final : public Queue {
public:
    MainQueue() : Queue("main") {}
    void async(Task task) override
    {
        if (MainQueueBackend* backend = gBackend.load()) {
            backend->post(std::move(task));
        } else {
            RunLoop::main().post(std::move(task));
        }
    }
    [[nodiscard]] bool isCurrent() const override { return isMainThread(); }
};

} // namespace

bool Queue::asyncUnlessIdleAnd(const std::function<bool()>& /*unneeded*/, Task task)
{
    async(std::move(task));
    return true;
}

void Queue::sync(const Task& task)
{
    if (isCurrent()) {
        task();
        return;
    }
    std::promise<void> done;
    auto finished = done.get_future();
    async([&task, &done] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    finished.get();
}

QueuePtr mainQueue()
{
    // Never destroyed: a port's reader thread or a detached worker may still
    // post its last notice while the program's statics are being torn down.
    static const QueuePtr* queue = new QueuePtr(std::make_shared<MainQueue>());
    return *queue;
}

void setMainQueueBackend(MainQueueBackend* backend)
{
    gBackend.store(backend);
}

void setMainThreadToCurrent()
{
    mainThreadId().store(std::this_thread::get_id());
}

bool isMainThread()
{
    return std::this_thread::get_id() == mainThreadId().load();
}

QueuePtr globalQueue()
{
    // Never destroyed: detached workers may still be finishing at exit.
    static const QueuePtr* queue = new QueuePtr(std::make_shared<GlobalQueue>());
    return *queue;
}

QueuePtr makeSerialQueue(std::string label)
{
    return std::make_shared<SerialQueue>(std::move(label));
}

// --- run loop ----------------------------------------------------------------

struct RunLoop::State {
    std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> tasks;
};

RunLoop::State& RunLoop::state()
{
    static State* s = new State;
    return *s;
}

RunLoop& RunLoop::main()
{
    static RunLoop loop;
    return loop;
}

void RunLoop::post(Task task)
{
    State& s = state();
    {
        std::lock_guard lock(s.mutex);
        s.tasks.push_back(std::move(task));
    }
    s.wake.notify_one();
}

bool RunLoop::runUntil(const std::function<bool()>& done, Duration timeout)
{
    State& s = state();
    const auto deadline = Clock::now() + timeout;
    // `done` may depend on other threads, so wake now and then even without tasks.
    constexpr auto slice = std::chrono::milliseconds(2);
    for (;;) {
        if (done && done()) {
            return true;
        }
        const auto now = Clock::now();
        if (now >= deadline) {
            return done ? done() : false;
        }
        Task task;
        {
            std::unique_lock lock(s.mutex);
            s.wake.wait_until(lock, std::min(deadline, now + slice), [&s] { return !s.tasks.empty(); });
            if (s.tasks.empty()) {
                continue;
            }
            task = std::move(s.tasks.front());
            s.tasks.pop_front();
        }
        task();
    }
}

void RunLoop::runFor(Duration time)
{
    runUntil(nullptr, time);
}

void RunLoop::drain()
{
    State& s = state();
    for (;;) {
        Task task;
        {
            std::lock_guard lock(s.mutex);
            if (s.tasks.empty()) {
                return;
            }
            task = std::move(s.tasks.front());
            s.tasks.pop_front();
        }
        task();
    }
}

// --- timers ------------------------------------------------------------------

struct Timer::Shared {
    QueuePtr target;
    Task handler;
    Duration interval{};
    Clock::time_point next{};
    std::atomic<bool> cancelled{false};
    std::atomic<bool> resumed{false};
};

namespace {

class TimerService {
public:
    static TimerService& instance()
    {
        static TimerService* service = new TimerService; // lives until exit with its thread
        return *service;
    }

    void schedule(std::shared_ptr<Timer::Shared> timer)
    {
        {
            std::lock_guard lock(_mutex);
            _schedule.emplace(timer->next, std::move(timer));
        }
        _wake.notify_one();
    }

private:
    TimerService()
    {
        std::thread([this] { run(); }).detach();
    }

    void run()
    {
        std::unique_lock lock(_mutex);
        for (;;) {
            if (_schedule.empty()) {
                _wake.wait(lock, [this] { return !_schedule.empty(); });
                continue;
            }
            const auto due = _schedule.begin()->first;
            if (Clock::now() < due) {
                _wake.wait_until(lock, due);
                continue;
            }
            auto timer = std::move(_schedule.begin()->second);
            _schedule.erase(_schedule.begin());
            if (timer->cancelled.load()) {
                continue;
            }
            timer->target->async([timer] {
                if (!timer->cancelled.load()) {
                    timer->handler();
                }
            });
            if (timer->interval > Duration::zero()) {
                // Missed firings are coalesced into one, as a busy system would.
                const auto now = Clock::now();
                do {
                    timer->next += timer->interval;
                } while (timer->next <= now);
                _schedule.emplace(timer->next, std::move(timer));
            }
        }
    }

    std::mutex _mutex;
    std::condition_variable _wake;
    std::multimap<Clock::time_point, std::shared_ptr<Timer::Shared>> _schedule;
};

} // namespace

Timer::Timer(std::shared_ptr<Shared> shared) : _shared(std::move(shared)) {}

std::shared_ptr<Timer> Timer::create(QueuePtr target, Duration firstFire, Duration interval, Duration leeway,
                                     Task handler)
{
    auto shared = std::make_shared<Shared>();
    shared->target = std::move(target);
    shared->handler = std::move(handler);
    shared->interval = interval;
    shared->next = Clock::now() + firstFire;
    std::shared_ptr<Timer> timer(new Timer(std::move(shared)));
    timer->_leeway = leeway;
    return timer;
}

Timer::~Timer()
{
    cancel();
}

void Timer::resume()
{
    if (_shared->cancelled.load() || _shared->resumed.exchange(true)) {
        return;
    }
    TimerService::instance().schedule(_shared);
}

void Timer::cancel()
{
    _shared->cancelled.store(true);
}

bool Timer::isCancelled() const
{
    return _shared->cancelled.load();
}

void after(Duration delay, QueuePtr queue, Task task)
{
    auto shared = std::make_shared<Timer::Shared>();
    shared->target = std::move(queue);
    shared->handler = std::move(task);
    shared->next = Clock::now() + delay;
    shared->resumed = true;
    TimerService::instance().schedule(std::move(shared));
}

} // namespace quendral::dispatch

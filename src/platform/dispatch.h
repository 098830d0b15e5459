#pragma once
// Queues and timers shared by the whole application.
//
// - The main queue runs everything a user sees and every serial-port delegate
//   callback. In the window it is the Qt event loop (the app installs a backend);
//   elsewhere it is a RunLoop driven by the main thread.
// - The global queue runs blocking work. Like the system queues it is modelled
//   on, it grows a thread for each task that finds no idle worker, so a job that
//   blocks for minutes (an update waiting for a flashing tool) can never starve
//   the short tasks that job is waiting for.
// - Serial queues run their tasks one at a time, in order, on the global queue.
// - Timers fire their handler on a queue of the caller's choice.
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace quendral::dispatch {

using Task = std::function<void()>;
using Duration = std::chrono::nanoseconds;

class Queue : public std::enable_shared_from_this<Queue> {
public:
    virtual ~Queue() = default;
    Queue(const Queue&) = delete;
    Queue& operator=(const Queue&) = delete;

    // Runs the task later; never inline.
    virtual void async(Task task) = 0;
    // Queues the task as async() does, except when the queue is idle (nothing
    // waiting, nothing running) and `unneeded()` holds: then the task is
    // dropped. The look runs under the queue's lock, so none of the queue's
    // tasks can start while it looks: it must be quick and must not use this
    // queue. Only a serial queue can be idle in that sense; the others always
    // queue. True when the task was queued.
    virtual bool asyncUnlessIdleAnd(const std::function<bool()>& unneeded, Task task);
    // Runs the task and waits for it. A call made from the queue itself runs
    // the task inline instead of deadlocking.
    void sync(const Task& task);
    // True when the calling thread is currently running a task of this queue
    // (for the main queue: when it is the main thread).
    [[nodiscard]] virtual bool isCurrent() const = 0;
    [[nodiscard]] const std::string& label() const { return _label; }

protected:
    explicit Queue(std::string label) : _label(std::move(label)) {}

private:
    std::string _label;
};

using QueuePtr = std::shared_ptr<Queue>;

// --- main queue -------------------------------------------------------------

// How tasks reach the main thread. The default backend is the RunLoop below;
// the Qt application installs one that posts into its event loop.
class MainQueueBackend {
public:
    virtual ~MainQueueBackend() = default;
    virtual void post(Task task) = 0;
};

QueuePtr mainQueue();
// Installs a backend (not owned; must outlive its use). nullptr restores the RunLoop.
void setMainQueueBackend(MainQueueBackend* backend);
// The main thread is the thread that loaded the library, unless set otherwise.
void setMainThreadToCurrent();
bool isMainThread();

// The main thread's own loop for programs without a GUI event loop: the
// command-line front end and the tests.
class RunLoop {
public:
    static RunLoop& main();
    // Runs posted tasks until `done` returns true or the timeout passes.
    // Returns the last value of `done`. Must be called on the main thread.
    bool runUntil(const std::function<bool()>& done, Duration timeout);
    // Runs posted tasks for the given time.
    void runFor(Duration time);
    // Runs every task posted so far, without waiting for new ones.
    void drain();

    void post(Task task);

private:
    RunLoop() = default;
    struct State;
    static State& state();
};

// --- global and serial queues ----------------------------------------------

QueuePtr globalQueue();
QueuePtr makeSerialQueue(std::string label);

// --- timers -----------------------------------------------------------------

// A one-shot (interval zero) or repeating timer. It does nothing until resumed.
// Cancelling is final and may be done from any thread, also from the handler;
// after cancel() returns no new firing starts (a firing already running on
// another queue finishes).
class Timer : public std::enable_shared_from_this<Timer> {
public:
    static std::shared_ptr<Timer> create(QueuePtr target, Duration firstFire, Duration interval, Duration leeway,
                                         Task handler);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    void resume();
    void cancel();
    [[nodiscard]] bool isCancelled() const;
    [[nodiscard]] Duration leeway() const { return _leeway; }

    struct Shared;

private:
    explicit Timer(std::shared_ptr<Shared> shared);

    std::shared_ptr<Shared> _shared;
    Duration _leeway;
};

using TimerPtr = std::shared_ptr<Timer>;

// Convenience: run a task on a queue once after a delay.
void after(Duration delay, QueuePtr queue, Task task);

} // namespace quendral::dispatch

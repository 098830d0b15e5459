#pragma once
// How a simulated board ends the thread of its own: one that waits on
// `changed` under `mutex`, or one that looks at an atomic flag each time its
// line wakes it; either looks at `stopping` each time it wakes.
#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace quendral::sim {

// Sets `stopping`, wakes the worker and joins it. False when stopping had
// been asked before (nothing done).
inline bool stopWorker(std::mutex& mutex, std::condition_variable& changed, bool& stopping, std::thread& worker)
{
    {
        std::lock_guard lock(mutex);
        if (stopping) {
            return false;
        }
        stopping = true;
        changed.notify_all();
    }
    if (worker.joinable()) {
        worker.join();
    }
    return true;
}

// Sets `stopping`, wakes the worker with `wake` and joins it. False when the
// worker was not running (nothing done).
inline bool stopWorker(std::atomic<bool>& stopping, std::thread& worker, const std::function<void()>& wake)
{
    if (!worker.joinable()) {
        return false;
    }
    stopping = true;
    wake();
    worker.join();
    return true;
}

} // namespace quendral::sim

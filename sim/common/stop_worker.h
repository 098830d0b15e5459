#pragma once
// How a lab board ends the thread of its own that waits on `changed` under
// `mutex` and looks at `stopping` each time it wakes.
#include <condition_variable>
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

} // namespace quendral::sim

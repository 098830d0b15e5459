#pragma once
#include "platform/dispatch.h"

#include <deque>
#include <memory>
#include <mutex>

class QSocketNotifier;

namespace quendral::app {

// Delivers main-queue tasks through the Qt event loop of the GUI thread.
//
// The tasks wait in a queue of our own under a std::mutex; an eventfd watched
// by a QSocketNotifier only wakes the GUI thread. Everything a background
// thread hands to the main thread therefore passes a lock the thread checker
// can see (Qt's own posted-event queue synchronises with futexes it cannot).
// Tasks run one at a time in the order they were posted, also when a task
// runs a nested event loop (a modal alert): the loop keeps draining the queue.
//
// The GUI thread is woken only when the queue goes from empty to not empty,
// and each wake-up runs the tasks that were waiting then, so that a stream of
// posts (a flooded serial port) costs one wake-up per batch and cannot keep
// the window's own events (painting, timers, input) from their turn.
class QtMainQueue final : public dispatch::MainQueueBackend {
public:
    // Installs itself as the main-queue backend; call on the GUI thread once
    // the QApplication exists.
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void post(dispatch::Task task) override;

private:
    void wake() const;
    void runPostedTasks();

    int _wakeFd = -1;
    std::unique_ptr<QSocketNotifier> _notifier;
    std::mutex _mutex;
    std::deque<dispatch::Task> _tasks;
    // The descriptor was written and has not been read back since: the queue
    // is not empty, or was not when it was last looked at.
    bool _woken = false;
};

} // namespace quendral::app

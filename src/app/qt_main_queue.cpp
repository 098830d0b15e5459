#include "qt_main_queue.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace quendral::app {

QtMainQueue::QtMainQueue()
{
    _wakeFd = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (_wakeFd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd for the main queue");
    }
    _notifier = std::make_unique<QSocketNotifier>(_wakeFd, QSocketNotifier::Read);
    QObject::connect(_notifier.get(), &QSocketNotifier::activated, [this] { runPostedTasks(); });
    dispatch::setMainThreadToCurrent();
    dispatch::setMainQueueBackend(this);
}

QtMainQueue::~QtMainQueue()
{
    dispatch::setMainQueueBackend(nullptr);
    _notifier.reset();
    ::close(_wakeFd);
}

void QtMainQueue::post(dispatch::Task task)
{
    bool wasIdle = false;
    {
        std::lock_guard lock(_mutex);
        _tasks.push_back(std::move(task));
        wasIdle = !std::exchange(_woken, true);
    }
    if (wasIdle) {
        wake();
    }
}

void QtMainQueue::wake() const
{
    const std::uint64_t one = 1;
    // EAGAIN means the counter is full: the GUI thread is woken anyway.
    while (::write(_wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
}

void QtMainQueue::runPostedTasks()
{
    // The descriptor stays readable for as long as tasks wait: it is read back
    // only under the lock, at the moment the queue is seen empty, together
    // with the flag that posters look at. So a post either finds the flag set
    // and its task is run by the loop below, or finds it clear and wakes the
    // GUI thread again; and a task that opens a nested event loop leaves that
    // loop a readable descriptor, so the loop runs the rest of the queue in
    // order.
    //
    // One wake-up runs the tasks that were waiting when it began, not those
    // posted meanwhile: the event loop gets its turn between batches.
    std::size_t batch = 0;
    {
        std::lock_guard lock(_mutex);
        batch = _tasks.size();
    }
    for (; batch > 0; --batch) {
        dispatch::Task task;
        {
            std::lock_guard lock(_mutex);
            if (_tasks.empty()) {
                break; // a nested event loop has run them
            }
            task = std::move(_tasks.front());
            _tasks.pop_front();
        }
        task();
    }
    std::lock_guard lock(_mutex);
    if (_tasks.empty()) {
        _woken = false;
        std::uint64_t count = 0;
        while (::read(_wakeFd, &count, sizeof count) < 0 && errno == EINTR) {
        }
    }
}

} // namespace quendral::app

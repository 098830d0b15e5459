#include "qt_main_queue.h"

#include <QSocketNotifier>

#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

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
    {
        std::lock_guard lock(_mutex);
        _tasks.push_back(std::move(task));
    }
    wake();
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
    std::uint64_t count = 0;
    while (::read(_wakeFd, &count, sizeof count) < 0 && errno == EINTR) {
    }
    for (;;) {
        dispatch::Task task;
        bool more = false;
        {
            std::lock_guard lock(_mutex);
            if (_tasks.empty()) {
                return;
            }
            task = std::move(_tasks.front());
            _tasks.pop_front();
            more = !_tasks.empty();
        }
        if (more) {
            // Should this task open a nested event loop, that loop finds the
            // rest of the queue waiting and runs it in order.
            wake();
        }
        task();
    }
}

} // namespace quendral::app

#include "qt_main_queue.h"

#include <QCoreApplication>
#include <QMetaObject>

namespace quendral::app {

QtMainQueue::QtMainQueue()
{
    dispatch::setMainThreadToCurrent();
    dispatch::setMainQueueBackend(this);
}

QtMainQueue::~QtMainQueue()
{
    dispatch::setMainQueueBackend(nullptr);
}

void QtMainQueue::post(dispatch::Task task)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(task), Qt::QueuedConnection);
}

} // namespace quendral::app

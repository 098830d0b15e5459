#pragma once
#include "platform/dispatch.h"

namespace quendral::app {

// Delivers main-queue tasks through the Qt event loop of the GUI thread.
class QtMainQueue final : public dispatch::MainQueueBackend {
public:
    // Installs itself as the main-queue backend; call on the GUI thread once
    // the QApplication exists.
    QtMainQueue();
    ~QtMainQueue() override;
    QtMainQueue(const QtMainQueue&) = delete;
    QtMainQueue& operator=(const QtMainQueue&) = delete;

    void post(dispatch::Task task) override;
};

} // namespace quendral::app

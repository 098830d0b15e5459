// MainViewController: construction, the serial delegate side and shared services.
#include "controller/main_view_controller.h"

#include "platform/dispatch.h"

namespace quendral {

std::shared_ptr<MainViewController> MainViewController::create(MainView& view, ApplicationDelegate* appDelegate,
                                                               Clock& clock)
{
    return std::make_shared<MainViewController>(view, appDelegate, clock);
}

MainViewController::MainViewController(MainView& view, ApplicationDelegate* appDelegate, Clock& clock)
    : _view(view), _appDelegate(appDelegate), _clock(clock), _portList(view, appDelegate, nullptr, clock)
{
    _portList.setSerialStore([this](const SerialPort::Ptr& port) {
        std::lock_guard lock(_serialMutex);
        _serial = port;
    });
}

MainViewController::~MainViewController() = default;

SerialPort::Ptr MainViewController::serial() const
{
    std::lock_guard lock(_serialMutex);
    return _serial;
}

void MainViewController::postStatusText(std::string text)
{
    std::weak_ptr<MainViewController> weakSelf = weak_from_this();
    dispatch::mainQueue()->async([weakSelf, text = std::move(text)] {
        if (auto self = weakSelf.lock()) {
            self->_view.setStatusText(text);
        }
    });
}

bool MainViewController::respondsTo(SerialPortDelegateCallback callback) const
{
    return callback == SerialPortDelegateCallback::DidReceiveData ||
           callback == SerialPortDelegateCallback::WasRemovedFromSystem;
}

void MainViewController::serialPortDidReceiveData(const std::shared_ptr<SerialPort>& /*port*/, const SerialData& data)
{
    _parser.receive(data);
}

void MainViewController::serialPortWasRemovedFromSystem(const std::shared_ptr<SerialPort>& /*port*/) {}

} // namespace quendral

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
    : _view(view), _appDelegate(appDelegate), _clock(clock)
{
}

MainViewController::~MainViewController() = default;

SerialPort::Ptr MainViewController::serial() const
{
    std::lock_guard lock(_serialMutex);
    return _serial;
}

std::optional<std::string> MainViewController::pathOfSelectedPort() const
{
    return std::nullopt;
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

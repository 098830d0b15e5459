// MainViewController: construction, the serial delegate side and shared services.
#include "controller/main_view_controller.h"

#include "flashing/avrdude_wrapper.h"
#include "flashing/bossac_wrapper.h"
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

void MainViewController::viewDidLoad()
{
    updateSerialPorts();
    const std::weak_ptr<MainViewController> weakSelf = weak_from_this();
    auto forward = [weakSelf](void (MainViewController::*handler)(const Notification&)) {
        return [weakSelf, handler](const Notification& notification) {
            if (auto self = weakSelf.lock()) {
                ((*self).*handler)(notification);
            }
        };
    };
    NotificationCenter& center = NotificationCenter::defaultCenter();
    // "updateFromConfig" counts only when the application delegate sent it.
    const void* delegateSender = _appDelegate;
    if (delegateSender != nullptr) {
        _observers.emplace_back(center, "updateFromConfig", delegateSender,
                                forward(&MainViewController::updateFromConfig));
    }
    _observers.emplace_back(center, "uploadProgress", nullptr, forward(&MainViewController::progressChanged));
    _observers.emplace_back(center, "uploadState", nullptr, forward(&MainViewController::uploadState));
    observePortChanges();
    warnIfFTDIDriverMissing();
}

void MainViewController::setSerial(const SerialPort::Ptr& port)
{
    std::lock_guard lock(_serialMutex);
    _serial = port;
}

void MainViewController::setUpdateServerConfig(UpdateServerConfig config)
{
    _updateServer = UpdateServerClient(std::move(config));
}

std::optional<ServerProblemReport> MainViewController::serverProblem() const
{
    std::lock_guard lock(_serialMutex);
    return _serverProblem;
}

void MainViewController::noteServerProblem(std::optional<ServerProblemReport> problem)
{
    std::lock_guard lock(_serialMutex);
    _serverProblem = std::move(problem);
}

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

// MainViewController: construction, the notifications it observes and the
// services its actions share.
#include "controller/main_view_controller.h"

#include "platform/dispatch.h"

namespace quendral {

std::shared_ptr<MainViewController> MainViewController::create(MainView& view, ApplicationDelegate* appDelegate,
                                                               Clock& clock)
{
    return std::make_shared<MainViewController>(view, appDelegate, clock);
}

// The window shows the tools' texts and progress through the notifications
// it observes (viewDidLoad), so the typed reports are not shown twice.
MainViewController::MainViewController(MainView& view, ApplicationDelegate* appDelegate, Clock& clock)
    : _view(view), _appDelegate(appDelegate), _clock(clock),
      _feedback(view, appDelegate, ViewFeedback::ToolReports::Dropped), _link(ControllerLink::create(_feedback, clock)),
      _uploader(*_link, _feedback, clock), _job(*_link, _uploader, _feedback, clock),
      _portList(view, appDelegate, nullptr, clock)
{
    _portList.setSerialStore([link = _link](const SerialPort::Ptr& port) { link->setSerial(port); });
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

PortPath MainViewController::selectedPort() const
{
    return PortPath::following([this] { return pathOfSelectedPort(); });
}

void MainViewController::setUpdateServerConfig(UpdateServerConfig config)
{
    _updateServer = UpdateServerClient(std::move(config));
}

std::optional<ServerProblemReport> MainViewController::serverProblem() const
{
    return _job.serverProblem();
}

} // namespace quendral

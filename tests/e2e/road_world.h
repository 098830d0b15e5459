#pragma once
// The update road in one process: the application's MainViewController with a
// recording window, a simulated KorbatekDue (sim/lab) in a umockdev world, the
// real bossac from the build's resources and the local HTTPS update server.
// For the unplug tests and the road benchmark; run under umockdev-wrapper.
//
// The port manager exists once per process and listens to the test bed it was
// created in: call RoadWorld::testbed() before anything asks for ports.
#include "../support/recording_application_delegate.h"
#include "../support/recording_main_view.h"
#include "../support/temp_dir.h"

#include "controller/main_view_controller.h"
#include "platform/dispatch.h"
#include "platform/paths.h"
#include "serial/serial_port_manager.h"

#include "due_controller.h"
#include "local_update_server.h"
#include "umockdev_testbed.h"

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace quendral::test {

using namespace std::chrono_literals;

// The main window as a recording: status texts with the moment they were
// shown, how the controls went, and a hook on each status text (main thread).
class RoadView : public RecordingMainView {
public:
    using Moment = std::chrono::steady_clock::time_point;

    void setStatusText(const std::string& text) override
    {
        RecordingMainView::setStatusText(text);
        std::vector<std::function<void(const std::string&)>> hooks;
        {
            std::lock_guard lock(_mutex);
            _timedTexts.emplace_back(std::chrono::steady_clock::now(), text);
            hooks = _onStatusText;
        }
        for (const auto& hook : hooks) {
            hook(text);
        }
    }
    void setControlEnabled(Control control, bool enabled) override
    {
        RecordingMainView::setControlEnabled(control, enabled);
        if (control == Control::UpdatesButton) {
            ++(enabled ? _enables : _disables);
        }
    }
    bool showDialog(const std::string& message) override
    {
        RecordingMainView::showDialog(message);
        return dialogAnswer.load();
    }

    // Called with every status text, on the thread that shows it.
    void onStatusText(std::function<void(const std::string&)> hook)
    {
        std::lock_guard lock(_mutex);
        _onStatusText.push_back(std::move(hook));
    }
    [[nodiscard]] std::vector<std::pair<Moment, std::string>> timedTexts() const
    {
        std::lock_guard lock(_mutex);
        return _timedTexts;
    }
    [[nodiscard]] bool shown(const std::string& text) const
    {
        const auto texts = statusTexts();
        return std::find(texts.begin(), texts.end(), text) != texts.end();
    }
    [[nodiscard]] bool allControlsEnabled() const
    {
        for (const Control control :
             {Control::SerialMonitorButton, Control::LoadFirmwareButton, Control::PortMenu, Control::UpdatesButton,
              Control::ConfigurationButton, Control::LocalConfigurationButton, Control::IpConfigButton,
              Control::WebConfigButton}) {
            if (!isControlEnabled(control)) {
                return false;
            }
        }
        return true;
    }
    [[nodiscard]] int updateButtonEnables() const { return _enables.load(); }
    [[nodiscard]] int updateButtonDisables() const { return _disables.load(); }

    std::atomic<bool> dialogAnswer{true};

private:
    mutable std::mutex _mutex;
    std::vector<std::pair<Moment, std::string>> _timedTexts;
    std::vector<std::function<void(const std::string&)>> _onStatusText;
    std::atomic<int> _enables{0};
    std::atomic<int> _disables{0};
};

// The lab's resource folder: the real tools and the lab's intermediate
// firmware (a simulator image, never packaged for real boards).
class LabResources {
public:
    LabResources()
    {
        namespace fs = std::filesystem;
        for (const char* tool : {"avrdude", "bossac", "avrdude.conf"}) {
            fs::create_symlink(fs::path(QUENDRAL_BUILD_RESOURCES) / tool, _dir.path() / tool);
        }
        fs::copy_file(QUENDRAL_LAB_IMAGE_DIR "/lab_intermediate_due.hex", _dir.path() / "intermediate_due.hex");
        paths::setResourceFolder(_dir.path());
    }
    ~LabResources() { paths::setResourceFolder(std::nullopt); }
    LabResources(const LabResources&) = delete;
    LabResources& operator=(const LabResources&) = delete;

private:
    TempDir _dir;
};

// One update of one simulated KorbatekDue on old firmware.
class RoadRun {
public:
    static sim::UmockdevTestbed& testbed()
    {
        static sim::UmockdevTestbed instance;
        return instance;
    }

    // `serverArguments`: more options for the update server (e.g. {"--polls", "5"}).
    RoadRun(std::vector<std::string> serverArguments, Clock& clock)
        : server({.arguments = withFirmware(std::move(serverArguments))}),
          due(testbed(), QUENDRAL_LAB_IMAGE_DIR "/lab_old_firmware.bin"), _clock(clock)
    {
    }
    ~RoadRun()
    {
        if (controller) {
            controller->setUpdateFinishedHandler(nullptr);
        }
        if (!due.unplugged()) {
            due.unplug();
        }
        due.stop();
        server.stop();
        // The port manager's notifications of the departure are handled.
        dispatch::RunLoop::main().runFor(50ms);
    }
    RoadRun(const RoadRun&) = delete;
    RoadRun& operator=(const RoadRun&) = delete;

    // The server, the board and its port in the port manager's list. False with `problem` set.
    bool prepare()
    {
        if (!server.running()) {
            problem = "the update server did not start: " + server.error();
            return false;
        }
        if (!due.start()) {
            problem = "the simulated Controller did not start: " + due.board().error();
            return false;
        }
        const std::string node = due.devnode();
        const bool listed = dispatch::RunLoop::main().runUntil(
            [&] {
                for (const auto& port : SerialPortManager::sharedSerialPortManager().availablePorts()) {
                    if (port->path() == node) {
                        return true;
                    }
                }
                return false;
            },
            10s);
        if (!listed) {
            problem = "the port manager did not list " + node;
        }
        return listed;
    }

    // The window's controller as the window makes it, pointed at the local server.
    void openWindow()
    {
        controller = MainViewController::create(view, &appDelegate, _clock);
        UpdateServerConfig config;
        config.baseUrl = server.baseUrl();
        config.caFile = server.caFile();
        controller->setUpdateServerConfig(std::move(config));
        controller->viewDidLoad();
        dispatch::RunLoop::main().drain();
        controller->setUpdateFinishedHandler([this](UpdateOutcome result) {
            outcome = result;
            finished = true;
        });
    }

    // The update button, on the main thread as the window presses it.
    void pressUpdate() { controller->checkForUpdate(); }

    // Serves the main queue until the update job has ended and its last
    // main-queue work (the controls coming back) has run; bounded.
    bool waitForEnd(std::chrono::milliseconds timeout, const std::function<void()>& eachTurn = {})
    {
        const bool ended = dispatch::RunLoop::main().runUntil(
            [&] {
                if (eachTurn) {
                    eachTurn();
                }
                return finished.load();
            },
            timeout);
        dispatch::RunLoop::main().runFor(20ms);
        dispatch::RunLoop::main().drain();
        return ended;
    }

    // Every port object the job used is closed again (closing completes later).
    static bool waitForPortsClosed()
    {
        return dispatch::RunLoop::main().runUntil(
            [] {
                for (const auto& port : SerialPort::allSerialPorts()) {
                    if (port->isOpen()) {
                        return false;
                    }
                }
                return true;
            },
            10s);
    }

    [[nodiscard]] std::vector<nlohmann::json> serverBodies() const { return server.recordedBodies(); }

    LocalUpdateServer server;
    sim::DueController due;
    RoadView view;
    RecordingApplicationDelegate appDelegate;
    std::shared_ptr<MainViewController> controller;
    std::atomic<bool> finished{false};
    std::atomic<UpdateOutcome> outcome{UpdateOutcome::Updated};
    std::string problem;

private:
    static std::vector<std::string> withFirmware(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), {"--firmware", QUENDRAL_LAB_IMAGE_DIR "/lab_new_firmware.hex"});
        return arguments;
    }

    Clock& _clock;
};

} // namespace quendral::test

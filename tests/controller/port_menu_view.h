#pragma once
// Stand-ins for the main window and the application delegate (the Qt window
// cannot run here): they keep the port menu as a window would and write down
// what the controller asked of them.
#include "controller/main_view.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral::test {

class PortMenuView final : public MainView {
public:
    void setStatusText(const std::string& text) override { record("status " + text); }
    void setStatusTextWithLink(const std::string& text, std::size_t /*linkLength*/, const std::string& url) override
    {
        record("status " + text + " -> " + url);
    }
    void setProgress(double /*percent*/) override {}
    void startProgressAnimation() override {}
    void setControlEnabled(Control /*control*/, bool /*enabled*/) override {}
    [[nodiscard]] bool isControlEnabled(Control /*control*/) const override { return true; }

    [[nodiscard]] std::vector<std::string> portMenuTitles() const override
    {
        std::lock_guard lock(_mutex);
        return _titles;
    }
    [[nodiscard]] std::optional<std::string> selectedPortTitle() const override
    {
        std::lock_guard lock(_mutex);
        return _selected;
    }
    void removeAllPortMenuItems() override
    {
        std::lock_guard lock(_mutex);
        _titles.clear();
        _selected.reset();
        ++_rebuilds;
    }
    void addPortMenuItem(const std::string& title) override
    {
        std::lock_guard lock(_mutex);
        _titles.push_back(title);
    }
    void selectPortMenuItem(const std::string& title) override
    {
        std::lock_guard lock(_mutex);
        if (std::find(_titles.begin(), _titles.end(), title) != _titles.end()) {
            _selected = title;
        }
    }
    // What the user does with the pop-up.
    void userSelects(const std::string& title) { selectPortMenuItem(title); }
    [[nodiscard]] int rebuilds() const
    {
        std::lock_guard lock(_mutex);
        return _rebuilds;
    }

    void showAlert(const std::string& message) override { record("alert " + message); }
    bool showDialog(const std::string& message) override
    {
        record("dialog " + message);
        return false;
    }
    std::optional<std::string> askForText(const std::string& message, const std::string& /*informativeText*/) override
    {
        record("ask " + message);
        return std::nullopt;
    }
    bool showDriverAlert(const std::string& message, const std::string& informativeText,
                         const std::string& defaultButton, const std::string& alternateButton) override
    {
        record("driver alert " + message + " | " + informativeText + " | " + defaultButton + " | " + alternateButton);
        std::lock_guard lock(_mutex);
        return _driverAlertAnswer;
    }
    void setDriverAlertAnswer(bool firstButton)
    {
        std::lock_guard lock(_mutex);
        _driverAlertAnswer = firstButton;
    }
    std::optional<std::string> chooseFirmwareFile() override { return std::nullopt; }
    void openURL(const std::string& url) override { record("open " + url); }

    [[nodiscard]] std::vector<std::string> events() const
    {
        std::lock_guard lock(_mutex);
        return _events;
    }

private:
    void record(std::string event)
    {
        std::lock_guard lock(_mutex);
        _events.push_back(std::move(event));
    }

    mutable std::mutex _mutex;
    std::vector<std::string> _titles;
    std::optional<std::string> _selected;
    int _rebuilds = 0;
    bool _driverAlertAnswer = false;
    std::vector<std::string> _events;
};

// The menu's last title, or "" while it is empty.
inline std::string lastTitle(const MainView& view)
{
    const auto titles = view.portMenuTitles();
    return titles.empty() ? std::string() : titles.back();
}

// The serial monitor's state as the application delegate reports it, and the
// requests to open it.
class MonitorStateDelegate final : public ApplicationDelegate {
public:
    void openSerialMonitor(const std::string& path) override
    {
        std::lock_guard lock(_mutex);
        _monitorOpenedWith.push_back(path);
    }
    void closeSerialMonitor() override {}
    [[nodiscard]] bool getSerialMonitorState() const override
    {
        std::lock_guard lock(_mutex);
        return _monitorVisibleWithClosedPort;
    }
    void openIPConfig(const std::string& /*path*/, const std::vector<std::string>& /*lines*/) override {}
    [[nodiscard]] bool getIPConfigState() const override { return false; }
    void setUpdateMenuEnable(bool /*enabled*/) override {}

    void setMonitorVisibleWithClosedPort(bool state)
    {
        std::lock_guard lock(_mutex);
        _monitorVisibleWithClosedPort = state;
    }
    [[nodiscard]] std::vector<std::string> monitorOpenedWith() const
    {
        std::lock_guard lock(_mutex);
        return _monitorOpenedWith;
    }

private:
    mutable std::mutex _mutex;
    bool _monitorVisibleWithClosedPort = false;
    std::vector<std::string> _monitorOpenedWith;
};

} // namespace quendral::test

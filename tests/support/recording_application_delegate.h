#pragma once
// An ApplicationDelegate that writes down what the main window controller asks
// of it, with the window states a test sets.
#include "controller/main_view.h"

#include <atomic>
#include <mutex>
#include <string>
#include <vector>

namespace quendral::test {

class RecordingApplicationDelegate : public ApplicationDelegate {
public:
    void openSerialMonitor(const std::string& path) override
    {
        std::lock_guard lock(_mutex);
        _monitorOpens.push_back(path);
    }
    void closeSerialMonitor() override { ++_monitorCloses; }
    [[nodiscard]] bool getSerialMonitorState() const override { return serialMonitorState.load(); }
    void openIPConfig(const std::string& path, const std::vector<std::string>& lines) override
    {
        std::lock_guard lock(_mutex);
        _ipConfigOpens.emplace_back(path, lines);
    }
    [[nodiscard]] bool getIPConfigState() const override { return ipConfigState.load(); }
    void setUpdateMenuEnable(bool enabled) override
    {
        updateMenuEnabled = enabled;
        ++(enabled ? _menuEnables : _menuDisables);
    }

    [[nodiscard]] std::vector<std::string> monitorOpens() const
    {
        std::lock_guard lock(_mutex);
        return _monitorOpens;
    }
    [[nodiscard]] std::vector<std::pair<std::string, std::vector<std::string>>> ipConfigOpens() const
    {
        std::lock_guard lock(_mutex);
        return _ipConfigOpens;
    }
    [[nodiscard]] int monitorCloses() const { return _monitorCloses.load(); }
    [[nodiscard]] int menuEnables() const { return _menuEnables.load(); }
    [[nodiscard]] int menuDisables() const { return _menuDisables.load(); }

    std::atomic<bool> serialMonitorState{false};
    std::atomic<bool> ipConfigState{false};
    std::atomic<bool> updateMenuEnabled{true};

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _monitorOpens;
    std::vector<std::pair<std::string, std::vector<std::string>>> _ipConfigOpens;
    std::atomic<int> _monitorCloses{0};
    std::atomic<int> _menuEnables{0};
    std::atomic<int> _menuDisables{0};
};

} // namespace quendral::test

#pragma once
// A MainView that writes down what the controller shows. Alerts and dialogs
// are answered at once ("Ok"); status texts are kept in order.
#include "controller/main_view.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace quendral::test {

class RecordingMainView : public MainView {
public:
    void setStatusText(const std::string& text) override
    {
        std::lock_guard lock(_mutex);
        _statusTexts.push_back(text);
    }
    void setStatusTextWithLink(const std::string& text, std::size_t /*linkLength*/, const std::string& /*url*/) override
    {
        setStatusText(text);
    }
    void setProgress(double percent) override
    {
        std::lock_guard lock(_mutex);
        _progress = percent;
    }
    void startProgressAnimation() override {}
    void setControlEnabled(Control control, bool enabled) override
    {
        std::lock_guard lock(_mutex);
        _enabled[control] = enabled;
    }
    [[nodiscard]] bool isControlEnabled(Control control) const override
    {
        std::lock_guard lock(_mutex);
        const auto found = _enabled.find(control);
        return found == _enabled.end() || found->second;
    }
    [[nodiscard]] std::vector<std::string> portMenuTitles() const override
    {
        std::lock_guard lock(_mutex);
        return _menu;
    }
    [[nodiscard]] std::optional<std::string> selectedPortTitle() const override
    {
        std::lock_guard lock(_mutex);
        return _selected;
    }
    void removeAllPortMenuItems() override
    {
        std::lock_guard lock(_mutex);
        _menu.clear();
        _selected.reset();
    }
    void addPortMenuItem(const std::string& title) override
    {
        std::lock_guard lock(_mutex);
        _menu.push_back(title);
    }
    void selectPortMenuItem(const std::string& title) override
    {
        std::lock_guard lock(_mutex);
        _selected = title;
    }
    void showAlert(const std::string& message) override
    {
        std::lock_guard lock(_mutex);
        _alerts.push_back(message);
    }
    bool showDialog(const std::string& message) override
    {
        std::lock_guard lock(_mutex);
        _dialogs.push_back(message);
        return true;
    }
    std::optional<std::string> askForText(const std::string& message, const std::string& /*informativeText*/) override
    {
        std::lock_guard lock(_mutex);
        _dialogs.push_back(message);
        return std::nullopt;
    }
    bool showDriverAlert(const std::string& message, const std::string& /*informativeText*/,
                         const std::string& /*defaultButton*/, const std::string& /*alternateButton*/) override
    {
        showAlert(message);
        return false;
    }
    std::optional<std::string> chooseFirmwareFile() override { return std::nullopt; }
    void openURL(const std::string& url) override
    {
        std::lock_guard lock(_mutex);
        _urls.push_back(url);
    }

    [[nodiscard]] std::vector<std::string> statusTexts() const
    {
        std::lock_guard lock(_mutex);
        return _statusTexts;
    }
    [[nodiscard]] std::vector<std::string> alerts() const
    {
        std::lock_guard lock(_mutex);
        return _alerts;
    }

    [[nodiscard]] std::vector<std::string> urls() const
    {
        std::lock_guard lock(_mutex);
        return _urls;
    }
    [[nodiscard]] std::vector<std::string> dialogs() const
    {
        std::lock_guard lock(_mutex);
        return _dialogs;
    }
    [[nodiscard]] double progress() const
    {
        std::lock_guard lock(_mutex);
        return _progress;
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::string> _statusTexts;
    std::vector<std::string> _alerts;
    std::vector<std::string> _dialogs;
    std::vector<std::string> _urls;
    std::vector<std::string> _menu;
    std::optional<std::string> _selected;
    std::map<Control, bool> _enabled;
    double _progress = 0;
};

} // namespace quendral::test

#pragma once
// A MainView that writes down what the controller shows. Alerts and dialogs
// are answered at once ("Ok"); status texts are kept in order. It also notes
// every call that did not come on the main thread (the port menu's selection
// is exempt: work reads it from its own thread).
#include "controller/main_view.h"
#include "platform/dispatch.h"

#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace quendral::test {

class RecordingMainView : public MainView {
public:
    void setStatusText(const std::string& text) override
    {
        noteThread("setStatusText");
        append(_statusTexts, text);
    }
    void setStatusTextWithLink(const std::string& text, std::size_t /*linkLength*/, const std::string& /*url*/) override
    {
        noteThread("setStatusTextWithLink");
        setStatusText(text);
    }
    void setProgress(double percent) override
    {
        noteThread("setProgress");
        std::lock_guard lock(_mutex);
        _progress = percent;
    }
    void startProgressAnimation() override { noteThread("startProgressAnimation"); }
    void setControlEnabled(Control control, bool enabled) override
    {
        noteThread("setControlEnabled");
        std::lock_guard lock(_mutex);
        _enabled[control] = enabled;
    }
    [[nodiscard]] bool isControlEnabled(Control control) const override
    {
        noteThread("isControlEnabled");
        std::lock_guard lock(_mutex);
        const auto found = _enabled.find(control);
        return found == _enabled.end() || found->second;
    }
    [[nodiscard]] std::vector<std::string> portMenuTitles() const override { return read(_menu); }
    [[nodiscard]] std::optional<std::string> selectedPortTitle() const override { return read(_selected); }
    void removeAllPortMenuItems() override
    {
        noteThread("removeAllPortMenuItems");
        std::lock_guard lock(_mutex);
        _menu.clear();
        _selected.reset();
    }
    void addPortMenuItem(const std::string& title) override
    {
        noteThread("addPortMenuItem");
        append(_menu, title);
    }
    void selectPortMenuItem(const std::string& title) override
    {
        noteThread("selectPortMenuItem");
        std::lock_guard lock(_mutex);
        _selected = title;
    }
    void showAlert(const std::string& message) override
    {
        noteThread("showAlert");
        append(_alerts, message);
    }
    bool showDialog(const std::string& message) override
    {
        noteThread("showDialog");
        append(_dialogs, message);
        return true;
    }
    std::optional<std::string> askForText(const std::string& message, const std::string& /*informativeText*/) override
    {
        noteThread("askForText");
        append(_dialogs, message);
        return std::nullopt;
    }
    bool showDriverAlert(const std::string& message, const std::string& /*informativeText*/,
                         const std::string& /*defaultButton*/, const std::string& /*alternateButton*/) override
    {
        showAlert(message);
        return false;
    }
    std::optional<std::string> chooseFirmwareFile() override
    {
        noteThread("chooseFirmwareFile");
        return std::nullopt;
    }
    void openURL(const std::string& url) override
    {
        noteThread("openURL");
        append(_urls, url);
    }

    [[nodiscard]] std::vector<std::string> statusTexts() const { return read(_statusTexts); }
    [[nodiscard]] std::vector<std::string> alerts() const { return read(_alerts); }

    [[nodiscard]] std::vector<std::string> urls() const { return read(_urls); }
    [[nodiscard]] std::vector<std::string> dialogs() const { return read(_dialogs); }
    [[nodiscard]] double progress() const { return read(_progress); }
    // The methods called off the main thread, in order.
    [[nodiscard]] std::vector<std::string> callsOffTheMainThread() const { return read(_offMainThread); }

private:
    void noteThread(const char* method) const
    {
        if (!dispatch::isMainThread()) {
            std::lock_guard lock(_mutex);
            _offMainThread.emplace_back(method);
        }
    }
    template <typename Field> Field read(const Field& field) const
    {
        std::lock_guard lock(_mutex);
        return field;
    }
    void append(std::vector<std::string>& list, const std::string& entry)
    {
        std::lock_guard lock(_mutex);
        list.push_back(entry);
    }

    mutable std::mutex _mutex;
    std::vector<std::string> _statusTexts;
    std::vector<std::string> _alerts;
    std::vector<std::string> _dialogs;
    std::vector<std::string> _urls;
    std::vector<std::string> _menu;
    std::optional<std::string> _selected;
    std::map<Control, bool> _enabled;
    double _progress = 0;
    mutable std::vector<std::string> _offMainThread;
};

} // namespace quendral::test

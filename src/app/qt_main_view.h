#pragma once
// The main window's content ("MasterView") as the controller's MainView.
#include "controller/main_view.h"

#include <QWidget>

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>

namespace Ui {
class MasterView;
}

namespace quendral::app {

class QtMainView final : public QWidget, public MainView {
    Q_OBJECT
public:
    explicit QtMainView(QWidget* parent = nullptr);
    ~QtMainView() override;
    QtMainView(const QtMainView&) = delete;
    QtMainView& operator=(const QtMainView&) = delete;

    [[nodiscard]] Ui::MasterView& ui() const { return *_ui; }

    void setStatusText(const std::string& text) override;
    void setStatusTextWithLink(const std::string& text, std::size_t linkLength, const std::string& url) override;
    void setProgress(double percent) override;
    void startProgressAnimation() override;

    void setControlEnabled(Control control, bool enabled) override;
    [[nodiscard]] bool isControlEnabled(Control control) const override;

    [[nodiscard]] std::vector<std::string> portMenuTitles() const override;
    [[nodiscard]] std::optional<std::string> selectedPortTitle() const override;
    void removeAllPortMenuItems() override;
    void addPortMenuItem(const std::string& title) override;
    void selectPortMenuItem(const std::string& title) override;

    void showAlert(const std::string& message) override;
    bool showDialog(const std::string& message) override;
    std::optional<std::string> askForText(const std::string& message, const std::string& informativeText) override;
    bool showDriverAlert(const std::string& message, const std::string& informativeText,
                         const std::string& defaultButton, const std::string& alternateButton) override;
    std::optional<std::string> chooseFirmwareFile() override;

    void openURL(const std::string& url) override;

    // Key-down events of the window, translated for the shortcut handler: Ctrl
    // stands for Command, Alt for Option, the Meta key for Control; Caps Lock
    // as the window system reports it (keyboard_locks.h).
    void setKeyHandler(std::function<void(std::uint64_t modifierFlags, std::uint16_t keyCode)> handler);
    [[nodiscard]] static std::uint64_t modifierFlags(Qt::KeyboardModifiers modifiers, bool capsLock);
    [[nodiscard]] static std::uint16_t keyCode(int qtKey);

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QWidget* widgetFor(Control control) const;
    // Keeps the copy of the menu that background threads read.
    void mirrorPortMenu();

    std::unique_ptr<Ui::MasterView> _ui;
    mutable std::mutex _menuMutex;
    std::vector<std::string> _menuTitles;
    std::optional<std::string> _selectedTitle;
    mutable std::mutex _enabledMutex;
    std::array<bool, kControlCount> _enabled{};
    std::function<void(std::uint64_t, std::uint16_t)> _keyHandler;
};

} // namespace quendral::app

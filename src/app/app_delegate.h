#pragma once
#include <QObject>
#include <memory>

class QMainWindow;

namespace quendral::app {

// Starts the program and owns its windows.
class AppDelegate : public QObject {
    Q_OBJECT
public:
    AppDelegate();
    ~AppDelegate() override;
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    void applicationDidFinishLaunching();
    [[nodiscard]] QMainWindow* mainWindow() const { return _mainWindow.get(); }

private:
    std::unique_ptr<QMainWindow> _mainWindow;
};

} // namespace quendral::app

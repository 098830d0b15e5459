#pragma once
// What the secondary windows ask of the application delegate.
namespace quendral::windows {

class WindowHost {
public:
    virtual ~WindowHost() = default;
    // Closes the serial monitor's port and hides its window, so that another
    // user of the port can open it.
    virtual void closeSerialMonitor() = 0;
    virtual void closeIPConfig() = 0;
};

} // namespace quendral::windows

#pragma once
// A USB device tree for libudev, for tests and demos without hardware.
//
// UmockdevTestbed builds, through umockdev, the sysfs tree and the /dev nodes
// that libudev and open() see: a USB device (idVendor, idProduct, serial,
// product, manufacturer) with a tty child ("ttyACM0", "ttyUSB0", ...), each
// tty backed by a pseudo-terminal whose other end ("device end") the test
// holds. SerialPort::serialPortWithPath("/dev/ttyACM0") then finds the port
// through libudev exactly as on a real machine.
//
// Each tty gets an ioctl handler that gives it modem lines (TIOCMGET/TIOCMSET/
// TIOCMBIS/TIOCMBIC answer from a simulated line state the test can read and
// set) and records TIOCEXCL/TIOCNXCL; everything else goes to the real pty.
// unplug() behaves like pulling the cable: a "remove" uevent, every ioctl
// answers EIO, and the terminal is hung up (reads give 0, poll gives POLLHUP;
// the hang-up, TIOCVHANGUP, needs root or CAP_SYS_ADMIN),
// then the device leaves the tree.
//
// Only works inside umockdev's preload: run the program under
// `umockdev-wrapper` (CTest: quendral_add_gtest(... WRAPPER umockdev-wrapper)).
// Child processes started from such a program see the same tree, and their
// ioctls are answered by this process's handlers.
//
// One test bed per process at a time. Not copyable. Thread-safe.
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral::sim {

struct UsbSerialDeviceInfo {
    std::string ttyName = "ttyACM0"; // "ttyACM<n>" (CDC-ACM) or "ttyUSB<n>" (USB serial adapter)
    std::uint16_t vendorId = 0x2341;
    std::uint16_t productId = 0x003E;
    std::string serial = "QUENDRAL0001";
    std::string product = "QUENDRAL Controller";
    std::string manufacturer = "QUENDRAL";
    // The USB socket it is plugged into (its sysfs name "1-<n>"); 0: a socket
    // of its own. A board that re-enumerates (into its boot loader and back)
    // comes back on the same socket, as on a real machine.
    int usbPort = 0;
    // More udev properties of the tty, as rules set them ("ID_MM_DEVICE_IGNORE", "1").
    std::vector<std::pair<std::string, std::string>> ttyProperties{};
    // false: the tty gets no ioctl handler. The program's reads, writes and
    // ioctls then go straight to the pseudo-terminal, as on a real port, and
    // not through the test bed, which umockdev otherwise asks on every call
    // (a socket round trip per read). The tty then has no modem lines
    // (TIOCMGET fails as on a plain pseudo-terminal) and nothing is recorded;
    // unplug() still sends the uevent and hangs the terminal up. For benchmarks
    // that measure a program's reading rather than the test bed.
    bool handleCalls = true;
};

class UmockdevTestbed;

// One tty of the tree, with its device end and its simulated modem lines.
class UmockdevSerialDevice {
public:
    struct LineState {
        bool dtr = false; // outputs as the program under test set them
        bool rts = false;
        bool cts = false; // inputs as the test sets them
        bool dsr = false;
        bool dcd = false;
    };

    [[nodiscard]] const std::string& devnode() const { return _devnode; }       // "/dev/ttyACM0"
    [[nodiscard]] const std::string& syspath() const { return _syspath; }       // "/sys/devices/.../tty/ttyACM0"
    [[nodiscard]] const std::string& usbSyspath() const { return _usbSyspath; } // empty for built-in ports
    [[nodiscard]] const std::string& ttyName() const { return _ttyName; }
    // The pseudo-terminal's device end (master). Owned by the test bed: never close it.
    [[nodiscard]] int deviceEnd() const { return _deviceEnd; }
    // The pseudo-terminal the node stands for ("/dev/pts/N").
    [[nodiscard]] std::string ptyPath() const;

    [[nodiscard]] LineState lines() const;
    void setInputLines(bool cts, bool dsr, bool dcd);
    // false: modem-line ioctls fail with ENOTTY, as on a plain pseudo-terminal.
    void setModemLinesSupported(bool supported);
    // Called on the handler's thread whenever DTR or RTS change (e.g. to reset
    // a simulated board as a real DTR pulse would).
    void setLineChangeHandler(std::function<void(const LineState&)> handler);
    // Called on the handler's thread before each ioctl of the program under
    // test is handled; a test may block in it to hold that call back.
    void setIoctlHook(std::function<void(unsigned long request)> hook);
    [[nodiscard]] int exclusiveRequests() const;    // TIOCEXCL calls seen
    [[nodiscard]] int nonExclusiveRequests() const; // TIOCNXCL calls seen
    [[nodiscard]] int modemLineSets() const;        // TIOCMSET/TIOCMBIS/TIOCMBIC calls seen
    [[nodiscard]] int modemLineGets() const;        // TIOCMGET calls seen

    // The speed the program under test set, as the device sees it (also
    // non-standard rates set through termios2).
    [[nodiscard]] unsigned long speed() const;

    [[nodiscard]] bool isPlugged() const;

    struct Handler; // the ioctl handler's state (internal)
    ~UmockdevSerialDevice();
    UmockdevSerialDevice(const UmockdevSerialDevice&) = delete;
    UmockdevSerialDevice& operator=(const UmockdevSerialDevice&) = delete;

private:
    friend class UmockdevTestbed;
    UmockdevSerialDevice() = default;

    std::string _devnode;
    std::string _syspath;
    std::string _usbSyspath;
    std::string _ttyName;
    int _deviceEnd = -1;
    std::shared_ptr<Handler> _handler;
};

class UmockdevTestbed {
public:
    // True when this process runs inside umockdev's preload.
    [[nodiscard]] static bool isAvailable();
    // Starts this program again, with the same arguments, inside
    // umockdev-wrapper; returns only when that cannot be done, having said so
    // on standard error under `programName`.
    static void runAgainInsideWrapper(int argc, char** argv, const char* programName);

    UmockdevTestbed();
    ~UmockdevTestbed();
    UmockdevTestbed(const UmockdevTestbed&) = delete;
    UmockdevTestbed& operator=(const UmockdevTestbed&) = delete;

    // A USB device with one tty child; announced with an "add" uevent unless
    // `announce` is false (the caller then sends it with uevent(), e.g. to time it).
    std::shared_ptr<UmockdevSerialDevice> addUsbSerialDevice(const UsbSerialDeviceInfo& info, bool announce = true);
    // A USB socket no device has been given yet (for UsbSerialDeviceInfo::usbPort).
    [[nodiscard]] int unusedUsbPort();
    // A serial port that is not on USB (like a mainboard's ttyS0).
    std::shared_ptr<UmockdevSerialDevice> addBuiltinSerialPort(const std::string& ttyName = "ttyS0");

    // Pulls the cable: "remove" uevent, ioctls fail with EIO, the terminal is
    // hung up, the device leaves the tree. The device object stays valid.
    // `eventSent`, when given, runs once the uevent has gone out (before the
    // test bed's own removal work), e.g. to tell the two apart in a benchmark.
    void unplug(UmockdevSerialDevice& device, const std::function<void()>& eventSent = {});
    // Only the hang-up of the terminal (every open descriptor sees POLLHUP and EIO).
    static bool hangUp(const UmockdevSerialDevice& device);
    // Stops the terminal's output, as a device that takes no more bytes: the
    // program's next write blocks until the output is let go or the terminal
    // is hung up (unplug(): the write then fails with EIO).
    static bool holdOutput(const UmockdevSerialDevice& device);
    // Sends a uevent ("add", "remove", "change") for a device's tty and waits
    // until a monitor has seen it go out (sent again, up to five times, if not).
    void uevent(const UmockdevSerialDevice& device, const std::string& action);

    // umockdev cannot give a /dev node to a second device once it was used in
    // this test bed (not even after the first device left). This is the name
    // to use instead: `preferred` while it is unused, else the next number of
    // its kind after every number used so far (as Linux numbers a board that
    // comes back while its old node is still held).
    [[nodiscard]] std::string unusedTtyName(const std::string& preferred) const;
    // Changes a sysfs attribute of a device's USB device ("idProduct"), in place.
    void setUsbAttribute(const UmockdevSerialDevice& device, const std::string& name, const std::string& value);

    // The test bed's root folder (UMOCKDEV_DIR).
    [[nodiscard]] std::string rootDir() const;

private:
    std::shared_ptr<UmockdevSerialDevice> addTty(const std::string& record, const std::string& ttyName,
                                                 const std::string& syspath, const std::string& usbSyspath,
                                                 bool announce, bool handleCalls = true);

    struct Impl;
    std::unique_ptr<Impl> _impl;
};

} // namespace quendral::sim

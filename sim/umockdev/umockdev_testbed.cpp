#include "umockdev_testbed.h"

#include "serial/arbitrary_baud_rate.h"

#include <libudev.h>
#include <umockdev.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

namespace quendral::sim {

// The ioctl handler of one tty. umockdev runs it on a thread of its own.
struct UmockdevSerialDevice::Handler {
    mutable std::mutex mutex;
    LineState lines;
    bool modemLinesSupported = true;
    bool plugged = true;
    int exclusive = 0;
    int nonExclusive = 0;
    int sets = 0;
    int gets = 0;
    std::function<void(const LineState&)> lineChangeHandler;
    std::function<void(unsigned long)> hook;
    UMockdevIoctlBase* object = nullptr;
    gulong signalId = 0;

    static gboolean handle(UMockdevIoctlBase* /*base*/, UMockdevIoctlClient* client, gpointer data)
    {
        return static_cast<Handler*>(data)->handleIoctl(client) ? TRUE : FALSE;
    }

    // Reads or writes the int an ioctl argument points to.
    static bool accessIntArgument(UMockdevIoctlClient* client, int* value, bool write)
    {
        UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
        GError* error = nullptr;
        UMockdevIoctlData* target = umockdev_ioctl_data_resolve(arg, 0, sizeof(int), &error);
        if (target == nullptr) {
            if (error != nullptr) {
                g_error_free(error);
            }
            return false;
        }
        if (write) {
            umockdev_ioctl_data_update(target, 0, reinterpret_cast<guint8*>(value), sizeof(int));
        } else if (target->data != nullptr && target->data_len >= static_cast<gint>(sizeof(int))) {
            std::memcpy(value, target->data, sizeof(int));
        }
        g_object_unref(target);
        return true;
    }

    static int bitsOf(const LineState& lines)
    {
        return (lines.dtr ? TIOCM_DTR : 0) | (lines.rts ? TIOCM_RTS : 0) | (lines.cts ? TIOCM_CTS : 0) |
               (lines.dsr ? TIOCM_DSR : 0) | (lines.dcd ? TIOCM_CAR : 0);
    }

    bool handleIoctl(UMockdevIoctlClient* client)
    {
        const unsigned long request = umockdev_ioctl_client_get_request(client);
        std::unique_lock lock(mutex);
        if (hook) {
            auto callHook = hook;
            lock.unlock();
            callHook(request);
            lock.lock();
        }
        if (!plugged) {
            // A vanished USB device answers everything with EIO.
            umockdev_ioctl_client_complete(client, -1, EIO);
            return true;
        }
        const bool modemRequest =
            request == TIOCMGET || request == TIOCMSET || request == TIOCMBIS || request == TIOCMBIC;
        if (modemRequest && !modemLinesSupported) {
            umockdev_ioctl_client_complete(client, -1, ENOTTY);
            return true;
        }
        if (request == TIOCMGET) {
            ++gets;
            int bits = bitsOf(lines);
            lock.unlock();
            const bool ok = accessIntArgument(client, &bits, true);
            umockdev_ioctl_client_complete(client, ok ? 0 : -1, ok ? 0 : EFAULT);
            return true;
        }
        if (modemRequest) {
            ++sets;
            lock.unlock();
            int bits = 0;
            const bool ok = accessIntArgument(client, &bits, false);
            if (!ok) {
                umockdev_ioctl_client_complete(client, -1, EFAULT);
                return true;
            }
            lock.lock();
            const LineState before = lines;
            const bool on = request != TIOCMBIC;
            const bool replace = request == TIOCMSET;
            if (replace || (bits & TIOCM_DTR) != 0) {
                lines.dtr = replace ? (bits & TIOCM_DTR) != 0 : on;
            }
            if (replace || (bits & TIOCM_RTS) != 0) {
                lines.rts = replace ? (bits & TIOCM_RTS) != 0 : on;
            }
            const LineState after = lines;
            auto observer = lineChangeHandler;
            lock.unlock();
            umockdev_ioctl_client_complete(client, 0, 0);
            if (observer && (before.dtr != after.dtr || before.rts != after.rts)) {
                observer(after);
            }
            return true;
        }
        if (request == TIOCEXCL) {
            ++exclusive;
        } else if (request == TIOCNXCL) {
            ++nonExclusive;
        }
        lock.unlock();
        int error = 0;
        const int result = umockdev_ioctl_client_execute(client, &error, nullptr);
        umockdev_ioctl_client_complete(client, result, error);
        return true;
    }
};

UmockdevSerialDevice::~UmockdevSerialDevice() = default;

std::string UmockdevSerialDevice::ptyPath() const
{
    char name[128] = {};
    if (::ptsname_r(_deviceEnd, name, sizeof name) != 0) {
        return {};
    }
    return name;
}

UmockdevSerialDevice::LineState UmockdevSerialDevice::lines() const
{
    std::lock_guard lock(_handler->mutex);
    return _handler->lines;
}

void UmockdevSerialDevice::setInputLines(bool cts, bool dsr, bool dcd)
{
    std::lock_guard lock(_handler->mutex);
    _handler->lines.cts = cts;
    _handler->lines.dsr = dsr;
    _handler->lines.dcd = dcd;
}

void UmockdevSerialDevice::setModemLinesSupported(bool supported)
{
    std::lock_guard lock(_handler->mutex);
    _handler->modemLinesSupported = supported;
}

void UmockdevSerialDevice::setLineChangeHandler(std::function<void(const LineState&)> handler)
{
    std::lock_guard lock(_handler->mutex);
    _handler->lineChangeHandler = std::move(handler);
}

void UmockdevSerialDevice::setIoctlHook(std::function<void(unsigned long request)> hook)
{
    std::lock_guard lock(_handler->mutex);
    _handler->hook = std::move(hook);
}

namespace {

// One of the ioctl counts, read under the handler's lock.
int countOf(const UmockdevSerialDevice::Handler& handler, int UmockdevSerialDevice::Handler::*count)
{
    std::lock_guard lock(handler.mutex);
    return handler.*count;
}

} // namespace

int UmockdevSerialDevice::exclusiveRequests() const
{
    return countOf(*_handler, &Handler::exclusive);
}

int UmockdevSerialDevice::nonExclusiveRequests() const
{
    return countOf(*_handler, &Handler::nonExclusive);
}

int UmockdevSerialDevice::modemLineSets() const
{
    return countOf(*_handler, &Handler::sets);
}

int UmockdevSerialDevice::modemLineGets() const
{
    return countOf(*_handler, &Handler::gets);
}

unsigned long UmockdevSerialDevice::speed() const
{
    return arbitraryBaudRate(_deviceEnd);
}

bool UmockdevSerialDevice::isPlugged() const
{
    std::lock_guard lock(_handler->mutex);
    return _handler->plugged;
}

// --- the test bed ----------------------------------------------------------------

struct UmockdevTestbed::Impl {
    mutable std::mutex mutex;
    UMockdevTestbed* testbed = nullptr;
    std::vector<std::shared_ptr<UmockdevSerialDevice>> devices;
    int nextUsbPort = 1;
};

bool UmockdevTestbed::isAvailable()
{
    const char* preload = std::getenv("LD_PRELOAD");
    return preload != nullptr && std::strstr(preload, "umockdev-preload") != nullptr;
}

void UmockdevTestbed::runAgainInsideWrapper(int argc, char** argv, const char* programName)
{
    std::vector<char*> again{const_cast<char*>("umockdev-wrapper")};
    for (int i = 0; i < argc; ++i) {
        again.push_back(argv[i]);
    }
    again.push_back(nullptr);
    ::execvp("umockdev-wrapper", again.data());
    std::fprintf(stderr, "%s: umockdev-wrapper not found (Debian package umockdev)\n", programName);
}

UmockdevTestbed::UmockdevTestbed() : _impl(std::make_unique<Impl>())
{
    _impl->testbed = umockdev_testbed_new();
}

UmockdevTestbed::~UmockdevTestbed()
{
    for (const auto& device : _impl->devices) {
        if (device->_handler->object != nullptr) {
            umockdev_testbed_detach_ioctl(_impl->testbed, device->devnode().c_str(), nullptr);
            g_signal_handler_disconnect(device->_handler->object, device->_handler->signalId);
            g_object_unref(device->_handler->object);
            device->_handler->object = nullptr;
        }
    }
    g_object_unref(_impl->testbed);
}

std::string UmockdevTestbed::rootDir() const
{
    gchar* root = umockdev_testbed_get_root_dir(_impl->testbed);
    std::string result = root != nullptr ? root : "";
    g_free(root);
    return result;
}

namespace {

// "ttyACM3" -> 3
int suffixNumber(const std::string& name)
{
    std::size_t i = name.size();
    while (i > 0 && name[i - 1] >= '0' && name[i - 1] <= '9') {
        --i;
    }
    return i < name.size() ? std::atoi(name.c_str() + i) : 0;
}

std::string hex4(std::uint16_t value)
{
    char text[8];
    std::snprintf(text, sizeof text, "%04x", value);
    return text;
}

} // namespace

std::shared_ptr<UmockdevSerialDevice> UmockdevTestbed::addUsbSerialDevice(const UsbSerialDeviceInfo& info,
                                                                          bool announce)
{
    const int port = info.usbPort > 0 ? info.usbPort : unusedUsbPort();
    const std::string usb = "/devices/pci0000:00/0000:00:14.0/usb1/1-" + std::to_string(port);
    const std::string interface = usb + "/1-" + std::to_string(port) + ":1.0";
    const bool acm = info.ttyName.rfind("ttyACM", 0) == 0;
    const int number = suffixNumber(info.ttyName);
    std::string record =
        "P: " + usb + "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_device\nE: DRIVER=usb\n" +
        "A: idVendor=" + hex4(info.vendorId) + "\nA: idProduct=" + hex4(info.productId) + "\nA: serial=" + info.serial +
        "\nA: product=" + info.product + "\nA: manufacturer=" + info.manufacturer + "\n\n" + "P: " + interface +
        "\nE: SUBSYSTEM=usb\nE: DEVTYPE=usb_interface\nE: DRIVER=" + (acm ? "cdc_acm" : "ftdi_sio") + "\n\n";
    std::string tty;
    if (acm) {
        tty = interface + "/tty/" + info.ttyName;
    } else {
        // USB serial adapters put a usb-serial port between interface and tty.
        record += "P: " + interface + "/" + info.ttyName + "\nE: SUBSYSTEM=usb-serial\nE: DRIVER=ftdi_sio\n\n";
        tty = interface + "/" + info.ttyName + "/tty/" + info.ttyName;
    }
    // umockdev's isatty() counts only major 4 as a terminal (avrdude checks
    // isatty() before it sets the line up): the number is borrowed from there,
    // with minors above the built-in ports'.
    record += "P: " + tty + "\nN: " + info.ttyName + "\nE: SUBSYSTEM=tty\nE: DEVNAME=/dev/" + info.ttyName + "\n";
    for (const auto& [key, value] : info.ttyProperties) {
        record += "E: " + key + "=" + value + "\n";
    }
    record += "A: dev=4:" + std::to_string((acm ? 128 : 192) + number) + "\n";
    return addTty(record, info.ttyName, "/sys" + tty, "/sys" + usb, announce, info.handleCalls);
}

int UmockdevTestbed::unusedUsbPort()
{
    std::lock_guard lock(_impl->mutex);
    return _impl->nextUsbPort++;
}

std::shared_ptr<UmockdevSerialDevice> UmockdevTestbed::addBuiltinSerialPort(const std::string& ttyName)
{
    const std::string platform = "/devices/platform/serial8250";
    const std::string tty = platform + "/tty/" + ttyName;
    const std::string record = "P: " + platform + "\nE: SUBSYSTEM=platform\nE: DRIVER=serial8250\n\n" + "P: " + tty +
                               "\nN: " + ttyName + "\nE: SUBSYSTEM=tty\nE: DEVNAME=/dev/" + ttyName +
                               "\nA: dev=4:" + std::to_string(64 + suffixNumber(ttyName)) + "\n";
    return addTty(record, ttyName, "/sys" + tty, "", true);
}

std::shared_ptr<UmockdevSerialDevice> UmockdevTestbed::addTty(const std::string& record, const std::string& ttyName,
                                                              const std::string& syspath, const std::string& usbSyspath,
                                                              bool announce, bool handleCalls)
{
    std::lock_guard lock(_impl->mutex);
    GError* error = nullptr;
    if (!umockdev_testbed_add_from_string(_impl->testbed, record.c_str(), &error)) {
        std::string message = error != nullptr ? error->message : "unknown error";
        if (error != nullptr) {
            g_error_free(error);
        }
        std::fprintf(stderr, "umockdev: cannot add %s: %s\n", ttyName.c_str(), message.c_str());
        return nullptr;
    }
    std::shared_ptr<UmockdevSerialDevice> device(new UmockdevSerialDevice);
    device->_devnode = "/dev/" + ttyName;
    device->_syspath = syspath;
    device->_usbSyspath = usbSyspath;
    device->_ttyName = ttyName;
    device->_handler = std::make_shared<UmockdevSerialDevice::Handler>();
    auto& handler = *device->_handler;
    if (handleCalls) {
        handler.object = umockdev_ioctl_base_new();
        handler.signalId = g_signal_connect(handler.object, "handle-ioctl",
                                            G_CALLBACK(UmockdevSerialDevice::Handler::handle), device->_handler.get());
    }
    if (handleCalls &&
        !umockdev_testbed_attach_ioctl(_impl->testbed, device->_devnode.c_str(), handler.object, &error)) {
        std::fprintf(stderr, "umockdev: cannot attach the ioctl handler of %s: %s\n", ttyName.c_str(),
                     error != nullptr ? error->message : "unknown error");
        if (error != nullptr) {
            g_error_free(error);
        }
    }
    device->_deviceEnd = umockdev_testbed_get_dev_fd(_impl->testbed, device->_devnode.c_str());
    _impl->devices.push_back(device);
    if (announce) {
        umockdev_testbed_uevent(_impl->testbed, syspath.c_str(), "add");
    }
    return device;
}

std::string UmockdevTestbed::unusedTtyName(const std::string& preferred) const
{
    std::size_t digits = preferred.size();
    while (digits > 0 && preferred[digits - 1] >= '0' && preferred[digits - 1] <= '9') {
        --digits;
    }
    const std::string base = preferred.substr(0, digits);
    std::lock_guard lock(_impl->mutex);
    bool used = false;
    int highest = -1;
    for (const auto& device : _impl->devices) {
        const std::string& name = device->ttyName();
        used = used || name == preferred;
        if (name.rfind(base, 0) == 0 && name.size() > base.size() &&
            name.find_first_not_of("0123456789", base.size()) == std::string::npos) {
            highest = std::max(highest, suffixNumber(name));
        }
    }
    return used ? base + std::to_string(highest + 1) : preferred;
}

void UmockdevTestbed::setUsbAttribute(const UmockdevSerialDevice& device, const std::string& name,
                                      const std::string& value)
{
    if (device.usbSyspath().empty()) {
        return;
    }
    std::lock_guard lock(_impl->mutex);
    umockdev_testbed_set_attribute(_impl->testbed, device.usbSyspath().c_str(), name.c_str(), value.c_str());
}

namespace {

// True once `monitor` delivers `action` for `syspath` within `timeout`.
bool sawEvent(udev_monitor* monitor, const std::string& syspath, const std::string& action,
              std::chrono::milliseconds timeout)
{
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            return false;
        }
        pollfd watch{udev_monitor_get_fd(monitor), POLLIN, 0};
        if (::poll(&watch, 1, static_cast<int>(left.count())) <= 0) {
            continue;
        }
        udev_device* event = udev_monitor_receive_device(monitor);
        if (event == nullptr) {
            continue;
        }
        const char* path = udev_device_get_syspath(event);
        const char* kind = udev_device_get_action(event);
        const bool match = path != nullptr && kind != nullptr && syspath == path && action == kind;
        udev_device_unref(event);
        if (match) {
            return true;
        }
    }
}

} // namespace

void UmockdevTestbed::uevent(const UmockdevSerialDevice& device, const std::string& action)
{
    // umockdev's sender looks the device up through libudev before it sends,
    // and now and then (other threads busy with libudev, a slow machine) that
    // lookup fails: it prints "uevent_sender_send: No such device" and sends
    // nothing, and a listener never hears of the change. A monitor of our own
    // tells whether the event went out; it is sent again if it did not.
    udev* context = udev_new();
    udev_monitor* monitor = context != nullptr ? udev_monitor_new_from_netlink(context, "udev") : nullptr;
    const bool watching = monitor != nullptr &&
                          udev_monitor_filter_add_match_subsystem_devtype(monitor, "tty", nullptr) >= 0 &&
                          udev_monitor_enable_receiving(monitor) >= 0;
    constexpr int kAttempts = 5;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        {
            std::lock_guard lock(_impl->mutex);
            umockdev_testbed_uevent(_impl->testbed, device.syspath().c_str(), action.c_str());
        }
        if (!watching || sawEvent(monitor, device.syspath(), action, std::chrono::seconds(1))) {
            break;
        }
        std::fprintf(stderr, "umockdev test bed: the \"%s\" uevent of %s did not go out, sending it again\n",
                     action.c_str(), device.syspath().c_str());
    }
    if (monitor != nullptr) {
        udev_monitor_unref(monitor);
    }
    if (context != nullptr) {
        udev_unref(context);
    }
}

bool UmockdevTestbed::hangUp(const UmockdevSerialDevice& device)
{
    // The kernel hangs up a tty whose USB device vanished; TIOCVHANGUP does the
    // same to a pseudo-terminal. Straight to the kernel: umockdev's preload
    // would take the ioctl for its own.
    const std::string pty = device.ptyPath();
    const int fd = ::open(pty.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const long result = ::syscall(SYS_ioctl, fd, TIOCVHANGUP, 0);
    ::close(fd);
    return result == 0;
}

bool UmockdevTestbed::holdOutput(const UmockdevSerialDevice& device)
{
    // As hangUp: straight to the kernel, on a descriptor of our own. The
    // stop belongs to the terminal, so it holds the program's descriptor too.
    const std::string pty = device.ptyPath();
    const int fd = ::open(pty.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        return false;
    }
    const long result = ::syscall(SYS_ioctl, fd, TCXONC, TCOOFF);
    ::close(fd);
    return result == 0;
}

void UmockdevTestbed::unplug(UmockdevSerialDevice& device, const std::function<void()>& eventSent)
{
    {
        // Whoever clears the flag pulls the cable; a second caller (the
        // re-enumeration thread and a test's own unplug meeting) does nothing
        // rather than announce the removal of a device that is gone.
        std::lock_guard lock(device._handler->mutex);
        if (!device._handler->plugged) {
            return;
        }
        device._handler->plugged = false;
    }
    uevent(device, "remove");
    if (eventSent) {
        eventSent();
    }
    hangUp(device);
    std::lock_guard lock(_impl->mutex);
    umockdev_testbed_remove_device(_impl->testbed, device.syspath().c_str());
    if (!device.usbSyspath().empty()) {
        umockdev_testbed_remove_device(_impl->testbed, device.usbSyspath().c_str());
        // The bus's links to the device and its interface stay behind; a
        // board that comes back on this socket needs their names again.
        const std::string socket = device.usbSyspath().substr(device.usbSyspath().rfind('/') + 1);
        const std::string bus = rootDir() + "/sys/bus/usb/devices/";
        for (const std::string& name : {socket, socket + ":1.0"}) {
            ::unlink((bus + name).c_str());
        }
    }
}

} // namespace quendral::sim

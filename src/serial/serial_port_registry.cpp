#include "serial/serial_port_registry.h"

#include "serial/serial_port.h"

#include <algorithm>

namespace quendral::serial_port_registry {
namespace {

// No entry's port may be released while the lock is held: its destructor
// takes the lock to leave the list. So matching is done on copies of the
// identity and the path, and a port is locked only to be handed out.
struct Entry {
    const SerialPort* object; // identity, also once the weak reference has expired
    std::string path;
    std::weak_ptr<SerialPort> port;
};

struct Registry {
    std::mutex mutex;
    std::vector<Entry> entries;
};

Registry& registry()
{
    static auto* r = new Registry; // ports may die on detached threads at exit
    return *r;
}

} // namespace

std::unique_lock<std::mutex> lock()
{
    return std::unique_lock(registry().mutex);
}

std::shared_ptr<SerialPort> existingPortWithPathLocked(const std::string& path)
{
    for (const Entry& entry : registry().entries) {
        if (entry.path != path) {
            continue;
        }
        // A port being destroyed no longer counts; its entry goes in a moment.
        if (auto port = entry.port.lock()) {
            return port;
        }
    }
    return nullptr;
}

void addSerialPortLocked(const std::shared_ptr<SerialPort>& port)
{
    registry().entries.push_back({port.get(), port->path(), port});
}

void removeSerialPort(const SerialPort* port)
{
    auto guard = lock();
    auto& entries = registry().entries;
    std::erase_if(entries, [port](const Entry& entry) { return entry.object == port; });
}

std::vector<std::shared_ptr<SerialPort>> allSerialPorts()
{
    auto guard = lock();
    std::vector<std::shared_ptr<SerialPort>> result;
    for (const Entry& entry : registry().entries) {
        if (auto port = entry.port.lock()) {
            result.push_back(std::move(port));
        }
    }
    return result;
}

} // namespace quendral::serial_port_registry

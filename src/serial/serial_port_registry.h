#pragma once
// The process-wide list of live ports (internal to the serial layer). It holds
// weak references only: a port leaves it in its destructor. Look-up and
// insertion happen under one lock so that two threads asking for the same
// path at once still get one object.
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quendral {

class SerialPort;

namespace serial_port_registry {

std::unique_lock<std::mutex> lock();
// The caller holds lock().
std::shared_ptr<SerialPort> existingPortWithPathLocked(const std::string& path);
void addSerialPortLocked(const std::shared_ptr<SerialPort>& port);
// Removes every entry of this object (takes the lock itself).
void removeSerialPort(const SerialPort* port);
std::vector<std::shared_ptr<SerialPort>> allSerialPorts();

} // namespace serial_port_registry
} // namespace quendral

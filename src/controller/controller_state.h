#pragma once
// What the reply parser learns from a Controller. The parser writes it on the
// main queue; the waiting procedures read it from a background thread after
// each of their one-second sleeps. Every field is replaced whole under one
// lock, so a reader sees either the old or the new value, never half of one.
#include <atomic>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace quendral {

class ControllerState {
public:
    [[nodiscard]] std::optional<std::string> deviceCID() const { return get(_deviceCID); }
    void setDeviceCID(std::optional<std::string> value) { set(_deviceCID, std::move(value)); }
    [[nodiscard]] std::optional<std::string> currentVersion() const { return get(_currentVersion); }
    void setCurrentVersion(std::optional<std::string> value) { set(_currentVersion, std::move(value)); }
    [[nodiscard]] std::optional<std::string> deviceMessage() const { return get(_deviceMessage); }
    void setDeviceMessage(std::optional<std::string> value) { set(_deviceMessage, std::move(value)); }
    [[nodiscard]] std::optional<std::string> deviceIP() const { return get(_deviceIP); }
    void setDeviceIP(std::optional<std::string> value) { set(_deviceIP, std::move(value)); }

    [[nodiscard]] std::vector<std::string> ipDump() const
    {
        std::lock_guard lock(_mutex);
        return _ipDump;
    }
    [[nodiscard]] std::size_t ipDumpCount() const
    {
        std::lock_guard lock(_mutex);
        return _ipDump.size();
    }
    void appendToIPDump(std::string line)
    {
        std::lock_guard lock(_mutex);
        _ipDump.push_back(std::move(line));
    }
    // A new, empty list.
    void resetIPDump()
    {
        std::lock_guard lock(_mutex);
        _ipDump.clear();
    }

    [[nodiscard]] bool dumpingIP() const { return _dumpingIP.load(); }
    void setDumpingIP(bool value) { _dumpingIP.store(value); }
    [[nodiscard]] bool skipWait() const { return _skipWait.load(); }
    void setSkipWait(bool value) { _skipWait.store(value); }

private:
    std::optional<std::string> get(const std::optional<std::string>& field) const
    {
        std::lock_guard lock(_mutex);
        return field;
    }
    void set(std::optional<std::string>& field, std::optional<std::string> value)
    {
        std::lock_guard lock(_mutex);
        field = std::move(value);
    }

    mutable std::mutex _mutex;
    std::optional<std::string> _deviceCID;
    std::optional<std::string> _currentVersion;
    std::optional<std::string> _deviceMessage;
    std::optional<std::string> _deviceIP;
    std::vector<std::string> _ipDump;
    std::atomic<bool> _dumpingIP{false};
    std::atomic<bool> _skipWait{false};
};

} // namespace quendral

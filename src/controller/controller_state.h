#pragma once
// What the reply parser learns from a Controller. The parser writes it on the
// main queue; the waiting procedures read it from a background thread after
// each of their one-second sleeps. Every field is replaced whole under one
// lock, so a reader sees either the old or the new value, never half of one.
#include <atomic>
#include <cstddef>
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
    // A real dump has about a dozen short lines. A Controller that never ends
    // its dump must not fill the memory: past these limits the rest of the
    // dump is dropped, so what is kept is always its beginning.
    static constexpr std::size_t kIPDumpLineLimit = 1000;
    static constexpr std::size_t kIPDumpByteLimit = std::size_t{1024} * 1024;
    enum class DumpAppend {
        Kept,
        Cut,        // this line is the first one dropped
        CutEarlier, // dropped, like every line since the cut
    };
    DumpAppend appendToIPDump(std::string line)
    {
        std::lock_guard lock(_mutex);
        if (!_ipDumpCut && _ipDump.size() < kIPDumpLineLimit && line.size() <= kIPDumpByteLimit - _ipDumpBytes) {
            _ipDumpBytes += line.size();
            _ipDump.push_back(std::move(line));
            return DumpAppend::Kept;
        }
        const bool first = !_ipDumpCut;
        _ipDumpCut = true;
        return first ? DumpAppend::Cut : DumpAppend::CutEarlier;
    }
    // A new, empty list.
    void resetIPDump()
    {
        std::lock_guard lock(_mutex);
        _ipDump.clear();
        _ipDumpBytes = 0;
        _ipDumpCut = false;
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
    std::size_t _ipDumpBytes = 0;
    bool _ipDumpCut = false;
    std::atomic<bool> _dumpingIP{false};
    std::atomic<bool> _skipWait{false};
};

} // namespace quendral

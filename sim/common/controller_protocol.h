#pragma once
// What a QUENDRAL Controller's firmware answers on its serial line, as one
// piece that every simulated Controller shares (the scriptable test
// simulator in controller/, the lab's KorbatekDue in samba/): a line in, the
// bytes of its answer out.
//
//   "getCID"        -> "CID:" + the 32-character identifier, or
//                      "CID:MSG:" + a message when one is set
//   "getVersion"    -> "VERSION:" + the firmware version
//   "dumpIP"        -> "start_dump", one line per setting, "end_dump"
//                      (lines like "ip;192.168.10.50", "dev;1;Label;192.168.10.60;1")
//   "config"        -> enters configuration mode; the next time the port is
//                      opened it announces "IP address: " + its address
//   "webconfig"     -> toggles its web server and announces
//                      "Starting webserver for configuration at http://" + address,
//                      or "Stopping webserver"
//   "bulkip", then "ip=", "subnet=", "gateway=", "dns=", "ipDeviceN=",
//   "enableDeviceN=" -> change the settings the next dump shows (no answer)
//   "reset"         -> restarts: configuration mode and web server off
//
// The service commands of the serial monitor ("configd", "clearpresets",
// "debug", "newmac", "ok"; "reset" and "config" above) are answered with a
// short acknowledgement line only when serviceAnswers is on: the tests'
// simulator records them silently, the lab's boards answer them so that an
// owner trying the serial monitor's buttons sees a reply. These answers are
// the simulator's own wording.
//
// Not thread-safe: the owner serialises calls.
#include <optional>
#include <string>
#include <vector>

namespace quendral::sim {

class ControllerProtocol {
public:
    ControllerProtocol();

    std::string cid = "0123456789ABCDEF0123456789ABCDEF";
    std::string version = "1.0.0";
    std::optional<std::string> message; // answer getCID with "CID:MSG:" + message
    std::string address = "192.168.10.50";
    std::vector<std::string> dumpLines;
    bool serviceAnswers = false;

    // The answer to one received line (without its line feed; a carriage
    // return before it is ignored); empty when there is none.
    [[nodiscard]] std::string answer(const std::string& line);
    // The port was opened: what the Controller says to the new session
    // (its address after "config"), or nothing.
    [[nodiscard]] std::string portOpened();

    [[nodiscard]] bool webserverRunning() const { return _webserver; }
    [[nodiscard]] bool inConfigurationMode() const { return _configMode; }
    [[nodiscard]] bool debugOutput() const { return _debug; }

private:
    // One "key=value" line of the IP settings write.
    void applySetting(const std::string& key, const std::string& value);

    bool _webserver = false;
    bool _configMode = false;
    bool _announceAddressOnOpen = false;
    bool _debug = false;
    unsigned _macCounter = 0;
};

} // namespace quendral::sim

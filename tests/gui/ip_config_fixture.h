#pragma once
// The IP configuration window on its own, with a host that counts what the
// window asks of it, against a simulated Controller on /dev/ttyACM0.
#include "device_fixture.h"
#include "windows/ip_config.h"
#include "windows/window_host.h"

#include <chrono>
#include <string>
#include <vector>

namespace quendral::test {

struct RecordingWindowHost : windows::WindowHost {
    void closeSerialMonitor() override { ++monitorCloses; }
    void closeIPConfig() override { ++ipConfigCloses; }
    int monitorCloses = 0;
    int ipConfigCloses = 0;
};

inline const std::vector<std::string> kDump = {"ip;192.168.10.50",
                                               "subnet;255.255.255.0",
                                               "gateway;192.168.10.1",
                                               "dns;192.168.10.2",
                                               "dev;1;Boiler room;192.168.10.60;1",
                                               "dev;2;Garage;192.168.10.61;0"};

class IPConfigTest : public DeviceWindowTest {
protected:
    // Lines the Controller received since the save, each without its line feed.
    std::vector<std::string> savedLines()
    {
        controller->waitForLine("reset", std::chrono::seconds(5));
        return controller->receivedLines();
    }

    RecordingWindowHost host;
    windows::IPConfig window{host};
};

} // namespace quendral::test

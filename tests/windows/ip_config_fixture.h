#pragma once
// The IP configuration window on its own, with a host that counts what the
// window asks of it, against a simulated Controller on /dev/ttyACM0.
#include "support/device_window_fixture.h"
#include "support/sample_ip_dump.h"
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

class IPConfigTest : public DeviceWindowTest {
protected:
    // Lines the Controller received since the save, each without its line feed.
    std::vector<std::string> savedLines()
    {
        simulator->waitForLine("reset", std::chrono::seconds(5));
        return simulator->receivedLines();
    }

    RecordingWindowHost host;
    windows::IPConfig window{host};
};

} // namespace quendral::test

#include "port_manager_world.h"

#include "serial/device_registry.h"
#include "support/umockdev_fixture.h"

namespace quendral::test {
namespace {

class WorldEnvironment : public ProgramUmockdevWorld {
public:
    void TearDown() override
    {
        dispatch::RunLoop::main().drain();
        world().testbed.reset();
    }

protected:
    void build() override
    {
        PortManagerWorld& w = world();
        w.testbed = std::make_unique<sim::UmockdevTestbed>();
        w.builtin = w.testbed->addBuiltinSerialPort("ttyS0");
        sim::UsbSerialDeviceInfo adapter;
        adapter.ttyName = "ttyUSB0";
        adapter.vendorId = 0x0403;
        adapter.productId = 0x6001;
        w.adapter = w.testbed->addUsbSerialDevice(adapter);
        sim::UsbSerialDeviceInfo board;
        board.ttyName = "ttyACM0";
        w.board = w.testbed->addUsbSerialDevice(board);
        for (const auto& device : DeviceRegistry::shared().serialDevices()) {
            w.registryPaths.push_back(device->devnode);
        }
        w.enumeratedPaths = pathsOf(SerialPortManager::sharedSerialPortManager().availablePorts());
        // The three "add" uevents above came before the manager listened.
        dispatch::RunLoop::main().runFor(50ms);
    }
};

// Registered before main() runs the tests.
[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new WorldEnvironment);

} // namespace

PortManagerWorld& world()
{
    static PortManagerWorld instance;
    return instance;
}

std::string nextTtyName(const std::string& base)
{
    return world().testbed->unusedTtyName(base + "10");
}

} // namespace quendral::test

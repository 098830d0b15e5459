#pragma once
// The umockdev world of a road test program.
#include "road_world.h"

#include "../support/umockdev_fixture.h"

namespace quendral::test {

// One world for the whole program: the test bed first, since the port
// manager listens to the one that exists when it starts.
class RoadWorldEnvironment : public ProgramUmockdevWorld {
protected:
    void build() override
    {
        (void)RoadRun::testbed();
        (void)SerialPortManager::sharedSerialPortManager().availablePorts();
    }
};

} // namespace quendral::test

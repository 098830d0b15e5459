#pragma once
// A window test with a simulated Controller on /dev/ttyACM0 of a umockdev tree,
// and the log captured from the console.
#include "controller_simulator.h"
#include "gui_test_support.h"
#include "log/logger.h"
#include "serial/serial_port.h"
#include "support/captured_console.h"
#include "support/umockdev_fixture.h"

#include <gtest/gtest.h>

namespace quendral::test {

class DeviceWindowTest : public UmockdevTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(UmockdevTest::SetUp());
        ASSERT_NO_FATAL_FAILURE(plugController());
        Logger::reset();
        Logger::setConsole(&console);
    }

    void TearDown() override
    {
        closeAllPorts();
        UmockdevTest::TearDown();
        Logger::setConsole(nullptr);
    }

    // The Controller on /dev/ttyACM0: the scriptable simulator unless a test
    // puts another board there.
    virtual void plugController()
    {
        plugSimulatedController().start();
        ASSERT_TRUE(device);
    }

    // The window's main queue is Qt's event loop.
    bool waitUntil(const std::function<bool()>& done) override { return spinUntil(done); }

    // Log messages so far, without their time stamps.
    [[nodiscard]] std::vector<std::string> loggedMessages() const { return console.messages(); }

    [[nodiscard]] bool logged(const std::string& message) const { return console.logged(message); }

    CapturedConsole console;
};

} // namespace quendral::test

#pragma once
// MainViewController against a simulated Controller on a umockdev tty, with a
// fast-forwarding clock shared by both.
#include "controller/main_view_controller.h"
#include "controller_simulator.h"
#include "platform/dispatch.h"
#include "support/fast_forward_clock.h"
#include "support/recording_main_view.h"
#include "support/umockdev_fixture.h"
#include "support/wait.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

namespace quendral::test {

using namespace std::chrono_literals;

class ProtocolTestBed : public UmockdevTest {
protected:
    void SetUp() override
    {
        ASSERT_NO_FATAL_FAILURE(UmockdevTest::SetUp());
        plugSimulatedController({}, clock);
        controller = MainViewController::create(view, nullptr, clock);
        selectPort("ttyACM0");
    }

    void TearDown() override
    {
        if (auto port = controller->serial()) {
            port->close();
            waitFor([&] { return !port->isOpen(); });
        }
        UmockdevTest::TearDown();
        dispatch::RunLoop::main().drain();
    }

    // The port menu's selection, as the owner makes it (none: nothing selected).
    void selectPort(const std::optional<std::string>& title)
    {
        view.removeAllPortMenuItems();
        if (title) {
            view.addPortMenuItem(*title);
            view.selectPortMenuItem(*title);
        }
    }

    // Runs a waiting procedure on the global queue, as the actions do, while
    // the main thread serves the main queue.
    template <typename Result>
    Result runInBackground(std::function<Result()> procedure, std::chrono::milliseconds timeout = 60000ms)
    {
        struct Shared {
            std::atomic<bool> done{false};
            Result result{};
        };
        auto shared = std::make_shared<Shared>();
        dispatch::globalQueue()->async([shared, procedure] {
            shared->result = procedure();
            shared->done = true;
        });
        EXPECT_TRUE(waitFor([&] { return shared->done.load(); }, timeout)) << "the procedure did not finish";
        dispatch::RunLoop::main().drain(); // the status texts it posted last
        return shared->done ? shared->result : Result{};
    }

    static std::vector<std::string> countDown(const std::string& text, long from, long to)
    {
        std::vector<std::string> result;
        for (long count = from; count >= to; --count) {
            result.push_back(text + " (" + std::to_string(count) + ")");
        }
        return result;
    }

    FastForwardClock clock;
    RecordingMainView view;
    std::shared_ptr<MainViewController> controller;
};

} // namespace quendral::test

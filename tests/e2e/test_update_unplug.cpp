// The Controller unplugged in each phase of an update: the window's controller
// in-process with a recording window, a simulated KorbatekDue in a umockdev
// world, the real bossac and the local HTTPS update server. Whatever the phase,
// the job ends with the texts the user is owed, the server hears what it
// should, the controls come back, and nothing is left open.
#include "road_world.h"
#include "road_world_environment.h"

#include "../support/captured_console.h"
#include "../support/child_processes.h"
#include "../support/descriptors.h"
#include "../support/fast_forward_clock.h"
#include "../support/scoped_log.h"
#include "../support/update_road_texts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace quendral::test {
namespace {

using Moment = sim::DueController::UnplugMoment;

const char* const kDownloadedFirmware = "/tmp/quendral-hexfile.hex";

// Longer than any ending the job can have with the fast clock (its longest
// wait, 30 s of clock time, passes in about 8 s), short of the test's timeout.
constexpr auto kJobBound = 90s;

[[maybe_unused]] const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new RoadWorldEnvironment);

// True when the texts appear in this order (others may stand between).
bool inOrder(const std::vector<std::string>& texts, const std::vector<std::string>& wanted)
{
    auto at = texts.begin();
    for (const auto& text : wanted) {
        at = std::find(at, texts.end(), text);
        if (at == texts.end()) {
            return false;
        }
        ++at;
    }
    return true;
}

std::string joined(const std::vector<std::string>& texts)
{
    std::string all;
    for (const auto& text : texts) {
        all += "  [" + text + "]\n";
    }
    return all;
}

std::vector<std::string> commandsOf(const std::vector<nlohmann::json>& bodies)
{
    std::vector<std::string> commands;
    for (const auto& body : bodies) {
        commands.push_back(body.is_object() && body.contains("cmd") ? body["cmd"].get<std::string>() : "?");
    }
    return commands;
}

// A unix socket bound in the test bed's folder (its ioctl sockets).
bool inTestbedFolder(const std::string& target)
{
    if (target.rfind("socket:[", 0) != 0) {
        return false;
    }
    const std::string inode = target.substr(8, target.size() - 9);
    std::ifstream table("/proc/net/unix");
    const std::string root = RoadRun::testbed().rootDir();
    for (std::string line; std::getline(table, line);) {
        std::istringstream fields(line);
        std::string num, refs, protocol, flags, type, state, node, path;
        if (fields >> num >> refs >> protocol >> flags >> type >> state >> node >> path && node == inode) {
            return path.rfind(root, 0) == 0;
        }
    }
    return false;
}

int eventFdCount()
{
    int count = 0;
    for (const auto& [fd, target] : openDescriptors()) {
        count += target == "anon_inode:[eventfd]" ? 1 : 0;
    }
    return count;
}

class UpdateUnplug : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(sim::UmockdevTestbed::isAvailable()) << "run under umockdev-wrapper"; }

    // The world for one update; the descriptors counted before the window opens.
    void start(std::vector<std::string> serverArguments)
    {
        run = std::make_unique<RoadRun>(std::move(serverArguments), clock);
        ASSERT_TRUE(run->prepare()) << run->problem;
        dispatch::RunLoop::main().runFor(50ms);
        descriptorsBefore = openDescriptors();
        run->openWindow();
    }

    // Starts the update and checks that it ends cleanly (expectCleanEnd).
    void pressUpdateUntilTheEnd()
    {
        run->pressUpdate();
        expectCleanEnd(run->waitForEnd(kJobBound));
    }

    // The board goes when asked for its identity; the user answers the
    // question about the intermediate firmware with `agree`.
    void unplugWhenAskedForTheIdentity(bool agree)
    {
        start({});
        run->due.unplugAt(Moment::WhenAskedForCID);
        run->view.dialogAnswer = agree;
        pressUpdateUntilTheEnd();
    }

    // The job has ended, the controls are back, no port is open and no
    // descriptor is left over; bounded throughout.
    void expectCleanEnd(bool ended)
    {
        ASSERT_TRUE(ended) << "the update job did not end within " << kJobBound.count() << " s; texts:\n"
                           << joined(run->view.statusTexts());
        EXPECT_TRUE(run->due.unplugged()) << "the Controller was never unplugged";
        EXPECT_GE(run->view.updateButtonDisables(), 1);
        EXPECT_GE(run->view.updateButtonEnables(), 1);
        EXPECT_TRUE(run->view.allControlsEnabled()) << "toggleUI did not give the controls back";
        EXPECT_TRUE(run->appDelegate.updateMenuEnabled.load());
        EXPECT_TRUE(RoadRun::waitForPortsClosed()) << "a port object is still open";
        EXPECT_TRUE(childProcessesRunning("bossac").empty());
        if (downloadWatched) {
            // The path is fixed and shared with every other update on the
            // machine: the job's own file (this inode, this time) must be gone.
            std::lock_guard lock(downloadMutex);
            ASSERT_TRUE(downloaded) << "the downloaded firmware was not there during the upload";
            struct stat now {};
            const bool same = ::stat(kDownloadedFirmware, &now) == 0 && now.st_ino == downloaded->st_ino &&
                              now.st_mtim.tv_sec == downloaded->st_mtim.tv_sec &&
                              now.st_mtim.tv_nsec == downloaded->st_mtim.tv_nsec;
            EXPECT_FALSE(same) << "the downloaded firmware was left behind";
        }
        run->controller->setUpdateFinishedHandler(nullptr);
        std::weak_ptr<MainViewController> controller = run->controller;
        run->controller.reset();
        EXPECT_TRUE(controller.expired()) << "the window's controller outlives its window";
        dispatch::RunLoop::main().runFor(50ms);
        dispatch::RunLoop::main().drain();
        // Each node the board got after the count costs the test bed (not the
        // job) its device end, the ioctl socket in its folder and, once a
        // program used the node, an eventfd of the socket's listener.
        int worldEventFds = run->due.enumerations() - 1;
        std::string leaked;
        for (const auto& [fd, target] : openDescriptors()) {
            const auto before = descriptorsBefore.find(fd);
            if (before != descriptorsBefore.end() && before->second == target) {
                continue;
            }
            if (target == "/dev/ptmx" || target == "/proc/" + std::to_string(::getpid()) + "/fd" ||
                inTestbedFolder(target)) {
                continue;
            }
            if (target == "anon_inode:[eventfd]" && worldEventFds > 0) {
                --worldEventFds;
                continue;
            }
            leaked += "  " + std::to_string(fd) + " -> " + target + "\n";
        }
        EXPECT_TRUE(leaked.empty()) << "descriptors opened by the job and left open:\n" << leaked;
    }

    // Notes the downloaded firmware file while `text` is shown (the job has it then).
    // Notes the downloaded file as the upload of it begins (synchronously, on
    // the job's thread, while the tool has it).
    void watchDownload()
    {
        downloadWatched = true;
        console.onceWritten(std::string("Uploading firmware ") + kDownloadedFirmware, [this] {
            struct stat file {};
            if (::stat(kDownloadedFirmware, &file) == 0) {
                std::lock_guard lock(downloadMutex);
                downloaded = file;
            }
        });
        Logger::setConsole(&console);
    }

    void expectReportedFailure() const
    {
        const auto bodies = run->serverBodies();
        ASSERT_FALSE(bodies.empty());
        EXPECT_EQ(bodies.front()["cmd"], "check_update");
        EXPECT_EQ(bodies.back()["cmd"], "ticket_status");
        EXPECT_EQ(bodies.back()["success"], false);
        EXPECT_EQ(
            std::count_if(bodies.begin(), bodies.end(), [](const auto& b) { return b["cmd"] == "ticket_status"; }), 1);
    }

    // The board left before its boot loader could appear: the count-down
    // gives up, the upload fails and the server hears of the failure.
    void expectBootLoaderNeverAppeared() const
    {
        EXPECT_EQ(run->outcome.load(), UpdateOutcome::UploadFailed);
        const auto texts = run->view.statusTexts();
        EXPECT_TRUE(inOrder(texts, {kGenerating, bootLoaderCountdown(30), kNoBootLoader, kUploadError}))
            << joined(texts);
        EXPECT_EQ(texts.back(), kUploadError) << joined(texts);
        EXPECT_FALSE(run->view.shown(kPreparing));
        EXPECT_EQ(run->due.enumerations(), 1) << "the boot loader must never have appeared";
        expectReportedFailure();
    }

    void unplugWhileBossacWrites(const std::function<void()>& beforeUnplug);

    FastForwardClock clock{4.0};
    CapturedConsole console; // outlives the log, which gives the logger its console back
    ScopedLog log;
    LabResources resources;
    std::unique_ptr<RoadRun> run;
    std::map<int, std::string> descriptorsBefore;
    bool downloadWatched = false;
    std::mutex downloadMutex;
    std::optional<struct stat> downloaded;
};

TEST_F(UpdateUnplug, WhileTheControllerIsAskedForItsIdentityTheUserWhoAgreesGetsTheUploadError)
{
    unplugWhenAskedForTheIdentity(true);

    EXPECT_EQ(run->outcome.load(), UpdateOutcome::UploadFailed);
    const auto texts = run->view.statusTexts();
    EXPECT_TRUE(inOrder(texts, {bootCountdown(20), kUnidentified, kUploadError})) << joined(texts);
    EXPECT_EQ(texts.back(), kUploadError) << joined(texts);
    EXPECT_EQ(run->view.dialogs(), std::vector<std::string>{kIntermediateQuestion});
    EXPECT_TRUE(run->view.alerts().empty());
    EXPECT_FALSE(run->view.shown(kPreparing)) << "no tool may run without a board";
    EXPECT_TRUE(run->serverBodies().empty()) << "a Controller that never identified itself is not asked about";
    EXPECT_TRUE(log.contains("User confirmed intermediate firmware"));
    EXPECT_TRUE(log.contains("Error: Upload failed"));
}

TEST_F(UpdateUnplug, WhileTheControllerIsAskedForItsIdentityTheUserWhoDeclinesSeesNothingMore)
{
    unplugWhenAskedForTheIdentity(false);

    EXPECT_EQ(run->outcome.load(), UpdateOutcome::Declined);
    const auto texts = run->view.statusTexts();
    EXPECT_FALSE(run->view.shown(kUploadError)) << joined(texts);
    EXPECT_EQ(run->view.dialogs(), std::vector<std::string>{kIntermediateQuestion});
    EXPECT_TRUE(run->serverBodies().empty());
    EXPECT_TRUE(log.contains("User declined intermediate firmware"));
}

TEST_F(UpdateUnplug, WhileTheJobPollsForTheTicketTheDownloadedFileFindsNoBoardAndTheServerHearsOfTheFailure)
{
    // The server keeps generating until the test lets it finish.
    start({"--polls", "100000"});
    watchDownload();
    run->view.onStatusText([this](const std::string& text) {
        if (text == kGenerating && !run->due.unplugged()) {
            run->due.unplug();
        }
    });
    bool released = false;
    run->pressUpdate();
    const bool ended = run->waitForEnd(kJobBound, [&] {
        // The port menu has lost the board while the job polls: now the file
        // may come. (Under a slow build the menu can lose it before the
        // first poll; the file must not come with that one.)
        if (!released && run->due.unplugged() && !run->controller->pathOfSelectedPort() &&
            !commandsOf(run->serverBodies()).empty() && commandsOf(run->serverBodies()).back() == "ticket") {
            released = run->server.control({{"polls", 0}}).has_value();
        }
    });
    expectCleanEnd(ended);

    EXPECT_TRUE(released);
    EXPECT_EQ(run->outcome.load(), UpdateOutcome::UploadFailed);
    const auto texts = run->view.statusTexts();
    EXPECT_TRUE(inOrder(texts, {kGenerating, kUnidentified, kUploadError})) << joined(texts);
    EXPECT_EQ(texts.back(), kUploadError) << joined(texts);
    EXPECT_FALSE(run->view.shown(kPreparing));
    expectReportedFailure();
    const auto commands = commandsOf(run->serverBodies());
    EXPECT_GE(std::count(commands.begin(), commands.end(), "ticket"), 2);
    EXPECT_TRUE(log.contains("Received firmware!"));
    EXPECT_TRUE(log.contains("Error: Upload failed"));
}

TEST_F(UpdateUnplug, DuringTheTouchTheBoardNeverComesBackAndTheWaitGivesUp)
{
    start({"--polls", "1"});
    watchDownload();
    run->due.unplugAt(Moment::AtTouch);
    pressUpdateUntilTheEnd();

    expectBootLoaderNeverAppeared();
    EXPECT_TRUE(log.contains("Resetting device into programming mode.."));
    EXPECT_TRUE(log.contains("Error: Upload failed"));
}

TEST_F(UpdateUnplug, RightBeforeTheTouchTheBoardIsGoneAndTheWaitGivesUp)
{
    // Identification is over once the server is asked; the next close of the
    // board's port is the one after "prepareUpload", right before the touch.
    start({"--polls", "1"});
    watchDownload();
    run->view.onStatusText([this](const std::string& text) {
        if (text == kGenerating) {
            run->due.unplugAt(Moment::AtNextClose);
        }
    });
    pressUpdateUntilTheEnd();

    expectBootLoaderNeverAppeared();
    EXPECT_EQ(run->due.mode(), sim::SamMode::Application) << "no touch can have reached the board";
}

TEST_F(UpdateUnplug, BetweenTheTouchAndTheBootLoaderTheWaitCountsDownAndGivesUp)
{
    start({"--polls", "1"});
    watchDownload();
    run->due.unplugAt(Moment::DuringReset);
    pressUpdateUntilTheEnd();

    expectBootLoaderNeverAppeared();
    // The countdown ran on past the board's departure.
    EXPECT_TRUE(run->view.shown(bootLoaderCountdown(1))) << joined(run->view.statusTexts());
    EXPECT_EQ(run->due.mode(), sim::SamMode::BootLoader) << "the touch itself did reach the board";
}

// Pulls the cable once "Writing firmware..." shows, after `beforeUnplug`,
// and checks the failed run that follows.
void UpdateUnplug::unplugWhileBossacWrites(const std::function<void()>& beforeUnplug)
{
    start({"--polls", "1"});
    watchDownload();
    int eventFdsWhileWriting = -1;
    run->view.onStatusText([&](const std::string& text) {
        if (text == kWriting && !run->due.unplugged()) {
            eventFdsWhileWriting = eventFdCount();
            beforeUnplug();
            run->due.unplug();
        }
    });
    pressUpdateUntilTheEnd();
    // bossac's run held one of its own (the wrapper's stop signal), given back since.
    EXPECT_EQ(eventFdCount(), eventFdsWhileWriting - 1);

    EXPECT_EQ(run->outcome.load(), UpdateOutcome::UploadFailed);
    const auto texts = run->view.statusTexts();
    EXPECT_TRUE(inOrder(texts, {kGenerating, bootLoaderCountdown(30), kPreparing, kWriting, kFailure, kUploadError}))
        << joined(texts);
    EXPECT_FALSE(run->view.shown(kSuccess)) << joined(texts);
    EXPECT_EQ(texts.back(), kUploadError) << joined(texts);
    EXPECT_EQ(run->due.enumerations(), 2) << "the boot loader appeared once";
    expectReportedFailure();
    EXPECT_TRUE(log.contains("ERROR: Bossac terminated with an error"));
    // The tool's own output reaches the log when it fails.
    EXPECT_TRUE(log.contains("Bossac: ")) << log.text();
}

TEST_F(UpdateUnplug, WhileBossacWritesItFailsTheWrapperSaysSoAndTheServerHearsOfTheFailure)
{
    unplugWhileBossacWrites([] {});
}

TEST_F(UpdateUnplug, WhileBossacWaitsForTheBoardsReplyTheToolIsEndedAndTheServerHearsOfTheFailure)
{
    unplugWhileBossacWrites([this] {
        // The board takes the next command and never answers it; bossac,
        // waiting for the reply, then reads the hung-up line as silence.
        run->due.board().silence();
        std::this_thread::sleep_for(100ms);
    });
    EXPECT_TRUE(log.contains("Bossac: the board's port is gone, ending the tool")) << log.text();
}

} // namespace
} // namespace quendral::test

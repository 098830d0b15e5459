// The wrappers run the real avrdude and bossac from the resource folder
// against ports where no boot loader answers, and against a resource folder
// whose tool is missing or cannot be executed.
#include "../support/flashing_expectations.h"
#include "../support/pseudo_terminal.h"
#include "../support/scoped_log.h"
#include "../support/temp_dir.h"
#include "../support/upload_recorder.h"
#include "flashing/avrdude_wrapper.h"
#include "flashing/bossac_wrapper.h"
#include "intel_hex.h"
#include "platform/paths.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <regex>

using namespace quendral;
using namespace quendral::test;
using Event = UploadRecorder::Event;
namespace fs = std::filesystem;

namespace {

const std::string kNoSuchPort = "/dev/quendral-no-such-port";
constexpr std::uint32_t kMega2560 = 0x26BA0003;
constexpr std::uint32_t kMicro = 0x23410037;
constexpr std::uint32_t kKorbatek = 0x04036001;

class FlashingTools : public ::testing::Test {
protected:
    void SetUp() override
    {
        quendral::paths::setResourceFolder(std::nullopt);
        std::vector<std::uint8_t> program(100);
        for (std::size_t i = 0; i < program.size(); ++i) {
            program[i] = static_cast<std::uint8_t>(i * 7);
        }
        std::ofstream(hexFile) << quendral::sim::toIntelHex(program);
    }
    void TearDown() override { quendral::paths::setResourceFolder(std::nullopt); }

    // A resource folder holding `tool` as a plain, non-executable file.
    void useResourcesWithNonExecutable(const std::string& tool)
    {
        std::ofstream(resources.path() / tool) << "#!/bin/sh\nexit 0\n";
        fs::permissions(resources.path() / tool, fs::perms::owner_read | fs::perms::owner_write);
        quendral::paths::setResourceFolder(resources.path());
    }

    // bossac from the resource folder set up before: refused before it runs.
    void expectBossacNotExecutable()
    {
        BossacWrapper wrapper("/dev/ttyACM0");
        UploadRecorder recorder(&wrapper);
        EXPECT_FALSE(wrapper.startUpload(hexFile));
        EXPECT_TRUE(log.contains("] Bossac: Not executable\n"));
        EXPECT_EQ(recorder.events(), (std::vector<Event>{kPreparing, 0}));
    }

    TempDir work;
    TempDir resources;
    fs::path hexFile = work.path() / "firmware.hex";
    ScopedLog log;
};

} // namespace

TEST_F(FlashingTools, TheRealToolsAreInTheResourceFolder)
{
    const auto folder = quendral::paths::resourceFolder();
    EXPECT_TRUE(quendral::ChildProcess::isExecutableFile(folder / "avrdude"));
    EXPECT_TRUE(quendral::ChildProcess::isExecutableFile(folder / "bossac"));
    EXPECT_TRUE(fs::is_regular_file(folder / "avrdude.conf"));
}

TEST_F(FlashingTools, AvrdudeMissingIsReportedAsNotExecutable)
{
    quendral::paths::setResourceFolder(resources.path());
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(hexFile, "/dev/ttyACM0", kMega2560));
    EXPECT_TRUE(log.contains("] Identified Arduino Mega 2560 device type.\n"));
    EXPECT_TRUE(log.contains("] Bossac: Not executable\n"));
    EXPECT_TRUE(recorder.events().empty());
}

TEST_F(FlashingTools, AvrdudeNotExecutableIsReportedAsSuch)
{
    useResourcesWithNonExecutable("avrdude");
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(hexFile, "/dev/ttyACM0", kMicro));
    EXPECT_TRUE(log.contains("] Bossac: Not executable\n"));
    EXPECT_TRUE(recorder.events().empty());
    EXPECT_FALSE(wrapper.getSignature({"-?"}).has_value());
}

TEST_F(FlashingTools, BossacMissingIsReportedAsNotExecutable)
{
    quendral::paths::setResourceFolder(resources.path());
    expectBossacNotExecutable();
}

TEST_F(FlashingTools, BossacNotExecutableIsReportedAsSuch)
{
    useResourcesWithNonExecutable("bossac");
    expectBossacNotExecutable();
}

TEST_F(FlashingTools, AnUnknownBoardIsNotFlashed)
{
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(hexFile, "/dev/ttyACM0", 0x23418037));
    EXPECT_TRUE(log.contains("] ERROR: Could not identify device type\n"));
    EXPECT_TRUE(recorder.events().empty());
}

// Not with the Mega 2560's arguments: avrdude 7.1's "wiring" programmer does
// not give up when it cannot open its port, it spins for ever.
TEST_F(FlashingTools, AvrdudeOnAPortThatDoesNotExistFailsWithItsOutputInTheLog)
{
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(hexFile, kNoSuchPort, kKorbatek));
    EXPECT_EQ(wrapper.totalHash(), 0U);
    const auto states = recorder.states();
    ASSERT_FALSE(states.empty());
    EXPECT_EQ(states.front(), kPreparing);
    EXPECT_EQ(states.back(), kFailure);
    const auto text = log.text();
    EXPECT_NE(text.find("] 0\n"), std::string::npos);
    EXPECT_NE(text.find("] ERROR: Avrdude terminated with an error\n"), std::string::npos);
    // avrdude's own complaint, naming the port it was given, with our prefix.
    const auto output = text.find("] Avrdude: ");
    ASSERT_NE(output, std::string::npos) << text;
    EXPECT_NE(toolOutput(text, "Avrdude: ").find("cannot open port " + kNoSuchPort), std::string::npos) << text;
    // It found its configuration file (given with -C) and the part it was told.
    EXPECT_EQ(text.find("config file"), std::string::npos) << text;
    EXPECT_EQ(quendral::Logger::logBuffer(), "");
}

TEST_F(FlashingTools, AvrdudeOnASilentPortTimesOutAndFails)
{
    SilentPseudoTerminal port;
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    const auto started = std::chrono::steady_clock::now();
    // The Mega 2560's "wiring" protocol gives up after about 30 seconds, the
    // quickest of the three; the others retry for nearly a minute.
    EXPECT_FALSE(wrapper.startUpload(hexFile, port.path(), kMega2560));
    const auto took = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(recorder.states().back(), kFailure);
    EXPECT_TRUE(log.contains("] Identified Arduino Mega 2560 device type.\n"));
    EXPECT_TRUE(log.contains("] Avrdude: "));
    EXPECT_NE(toolOutput(log.text(), "Avrdude: ").find("error: timeout"), std::string::npos) << log.text();
    EXPECT_TRUE(log.contains("] ERROR: Avrdude terminated with an error\n"));
    EXPECT_GT(took, std::chrono::seconds(1)) << "it waited for an answer";
}

TEST_F(FlashingTools, BossacOnAPortThatDoesNotExistFailsWithItsOutputInTheLog)
{
    BossacWrapper wrapper(kNoSuchPort);
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(hexFile));
    EXPECT_EQ(recorder.events(), (std::vector<Event>{kPreparing, 0, kFailure}));
    const auto text = log.text();
    const auto error = text.find("] ERROR: Bossac terminated with an error\n");
    ASSERT_NE(error, std::string::npos) << text;
    const auto output = text.find("] Bossac: ", error);
    ASSERT_NE(output, std::string::npos) << text;
    EXPECT_NE(toolOutput(text.substr(error), "Bossac: ").find("No device found on quendral-no-such-port"),
              std::string::npos)
        << text;
    EXPECT_EQ(text.find("Bossac terminated successfully"), std::string::npos);
}

TEST_F(FlashingTools, BossacOnASilentPortFails)
{
    SilentPseudoTerminal port;
    BossacWrapper wrapper(port.path());
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.startUpload(hexFile));
    EXPECT_EQ(recorder.events(), (std::vector<Event>{kPreparing, 0, kFailure}));
    // bossac was given the port by its name below /dev and found it there.
    EXPECT_NE(toolOutput(log.text(), "Bossac: ").find("No device found on " + wrapper.portName()), std::string::npos)
        << log.text();
}

TEST_F(FlashingTools, TheSignatureProbeOfASilentPortFindsNothing)
{
    SilentPseudoTerminal port;
    AvrdudeWrapper wrapper;
    UploadRecorder recorder(&wrapper);
    EXPECT_FALSE(wrapper.getDeviceSignature(port.path()).has_value());
    EXPECT_EQ(recorder.events(), std::vector<Event>{"Identifying device type..."});
    const auto text = log.text();
    const auto arduino = text.find("] Timeout using arduino type\n");
    const auto wiring = text.find("] Timeout using wiring type\n");
    ASSERT_NE(arduino, std::string::npos) << text;
    ASSERT_NE(wiring, std::string::npos) << text;
    EXPECT_LT(arduino, wiring);
    // The probe logs what it read, block by block.
    EXPECT_NE(text.find("] Avrdude: "), std::string::npos);
    EXPECT_EQ(text.find("Signature: "), std::string::npos);
}

// Only the "arduino" list: the "wiring" one never ends on a missing port (see above).
TEST_F(FlashingTools, TheSignatureReadOfAMissingPortFindsNothing)
{
    AvrdudeWrapper wrapper;
    const auto config = "-C" + (quendral::paths::resourceFolder() / "avrdude.conf").string();
    EXPECT_FALSE(wrapper.getSignature({config, "-patmega1284p", "-carduino", "-P" + kNoSuchPort}).has_value());
    EXPECT_NE(toolOutput(log.text(), "Avrdude: ").find("cannot open port " + kNoSuchPort), std::string::npos)
        << log.text();
    EXPECT_FALSE(log.contains("Signature: "));
}

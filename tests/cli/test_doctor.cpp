// quendral-cli doctor's checks against a computer the test lays out in a
// folder of its own: a process table, udev rule folders, a resource folder.
#include "doctor.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>

using namespace quendral;
using namespace quendral::cli;
using quendral::test::TempDir;

namespace {

class DoctorTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const char* folder : {"proc", "rules", "resources"}) {
            std::filesystem::create_directories(dir.path() / folder);
        }
    }

    [[nodiscard]] Doctor doctor() const
    {
        return Doctor(Doctor::Places{dir.path() / "resources", dir.path() / "proc", {dir.path() / "rules"}});
    }
    void write(const std::filesystem::path& relative, const std::string& text) const
    {
        std::filesystem::create_directories((dir.path() / relative).parent_path());
        std::ofstream(dir.path() / relative) << text;
    }

    TempDir dir;
};

} // namespace

TEST_F(DoctorTest, ModemManagerThatRunsWithoutTheRuleIsAProblemWithItsFix)
{
    write("proc/1/comm", "systemd\n");
    EXPECT_TRUE(doctor().modemManager().ok);
    EXPECT_EQ(doctor().modemManager().text, "ModemManager does not run");

    write("proc/812/comm", "ModemManager\n");
    const Finding running = doctor().modemManager();
    EXPECT_FALSE(running.ok);
    EXPECT_EQ(running.text, "ModemManager runs and nothing marks the boards for it to ignore");
    EXPECT_EQ(running.fix, "install the package's udev rule 70-quendral-controllers.rules (then unplug and plug in "
                           "the boards), or: sudo systemctl stop ModemManager");

    write("rules/70-quendral-controllers.rules", "# the package's rule\n");
    EXPECT_TRUE(doctor().modemManager().ok);
}

TEST_F(DoctorTest, ABrailleRuleThatClaimsTheBoardsAdapterIsFound)
{
    write("rules/85-brltty.rules", "# a display on a CP210x\nENV{PRODUCT}==\"10c4/ea60/*\", GOTO=\"brltty\"\n");
    EXPECT_TRUE(doctor().brailleService().ok);

    write("rules/85-brltty.rules", "ENV{PRODUCT}==\"403/6001/*\", ENV{BRLTTY_BRAILLE_DRIVER}=\"fs\"\n");
    const Finding claimed = doctor().brailleService();
    EXPECT_FALSE(claimed.ok);
    EXPECT_NE(claimed.text.find("claims 0403:6001"), std::string::npos) << claimed.text;
    EXPECT_EQ(claimed.fix, "sudo apt remove brltty (or disable that rule if a braille display is used)");

    // The same identity named by its attributes.
    write("rules/85-brltty.rules", "SUBSYSTEMS==\"usb\", ATTRS{idVendor}==\"0403\", ATTRS{idProduct}==\"6001\"\n");
    EXPECT_FALSE(doctor().brailleService().ok);
    // A rule of another service naming the adapter is none of its business.
    std::filesystem::remove(dir.path() / "rules/85-brltty.rules");
    write("rules/60-other.rules", "ATTRS{idVendor}==\"0403\", ATTRS{idProduct}==\"6001\", MODE=\"0666\"\n");
    EXPECT_TRUE(doctor().brailleService().ok);
}

TEST_F(DoctorTest, AMissingToolOrConfigurationOrIntermediateImageIsAProblem)
{
    const Finding tool = doctor().tool("bossac", {"--help"}, "bossa-cli");
    EXPECT_FALSE(tool.ok);
    EXPECT_EQ(tool.text, "bossac is missing at " + (dir.path() / "resources/bossac").string());
    EXPECT_EQ(tool.fix, "sudo apt install bossa-cli");
    EXPECT_FALSE(doctor().avrdudeConfiguration().ok);

    const Finding intermediate = doctor().intermediateFirmware();
    EXPECT_FALSE(intermediate.ok);
    EXPECT_NE(intermediate.text.find("intermediate_due.hex"), std::string::npos) << intermediate.text;

    write("resources/avrdude.conf", "# configuration\n");
    write("resources/intermediate_due.hex", std::string(1024, '\x5a'));
    EXPECT_TRUE(doctor().avrdudeConfiguration().ok);
    EXPECT_TRUE(doctor().intermediateFirmware().ok) << doctor().intermediateFirmware().text;
}

TEST(DoctorFinding, AProblemIsPrintedWithItsFix)
{
    EXPECT_EQ(findingLine({"avrdude", true, "avrdude 7.1 (/usr/share/x/avrdude)", {}}),
              "[ok] avrdude 7.1 (/usr/share/x/avrdude)");
    EXPECT_EQ(findingLine({"bossac", false, "bossac is missing at /x/bossac", "sudo apt install bossa-cli"}),
              "[problem] bossac is missing at /x/bossac\n  Fix: sudo apt install bossa-cli");
}

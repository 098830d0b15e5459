// The Debian package as a user gets it: what dpkg is told about it, what it
// puts on the disk, what Debian's own checkers say of it, and the unpacked
// programs at work. package_build (CTest) made it from this build tree.
#include "e2e/lab_run.h"
#include "support/shell_command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

using namespace quendral::test;
namespace fs = std::filesystem;

namespace {

const std::string kName = "quendral-firmware-updater";

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    EXPECT_NE(value, nullptr) << name;
    return value != nullptr ? value : "";
}

ShellResult run(const std::string& command)
{
    return runShellCommand(command + " 2>&1");
}

std::string contentsOf(const fs::path& file)
{
    std::ifstream in(file, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string upper(std::string text)
{
    for (char& c : text) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return text;
}

std::string trimmed(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t\n");
    const auto last = text.find_last_not_of(" \t\n");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

// The one .deb package_build left.
fs::path packageFile()
{
    std::vector<fs::path> found;
    std::error_code ec;
    for (const auto& entry : fs::directory_iterator(environment("QUENDRAL_PACKAGE_DIR"), ec)) {
        if (entry.path().extension() == ".deb") {
            found.push_back(entry.path());
        }
    }
    EXPECT_EQ(found.size(), 1U) << "run package_build first (ctest -L package does)";
    return found.empty() ? fs::path() : found.front();
}

std::string architecture()
{
    return trimmed(runShellCommand("dpkg --print-architecture").output);
}

std::string controlField(const std::string& field)
{
    return trimmed(runShellCommand("dpkg-deb --field " + shellQuoted(packageFile().string()) + " " + field).output);
}

// The package unpacked with dpkg -x into an empty folder of its own.
class UnpackedPackage {
public:
    UnpackedPackage()
    {
        const auto unpack = run("dpkg -x " + shellQuoted(packageFile().string()) + " " + shellQuoted(root().string()));
        EXPECT_EQ(unpack.exitCode, 0) << unpack.output;
    }
    [[nodiscard]] fs::path root() const { return _dir.path() / "root"; }
    [[nodiscard]] fs::path operator/(const std::string& path) const { return root() / path; }

private:
    TempDir _dir;
};

} // namespace

// ---------------------------------------------------------------------------
// What dpkg is told

TEST(PackageControl, FileIsNamedForThePackageItsVersionAndArchitecture)
{
    EXPECT_EQ(packageFile().filename().string(),
              kName + "_" + environment("QUENDRAL_PACKAGE_VERSION") + "_" + architecture() + ".deb");
}

TEST(PackageControl, FieldsNameThePackageItsMaintainerAndWhatItIs)
{
    EXPECT_EQ(controlField("Package"), kName);
    EXPECT_EQ(controlField("Version"), environment("QUENDRAL_PACKAGE_VERSION"));
    EXPECT_EQ(controlField("Architecture"), architecture());
    EXPECT_EQ(controlField("Section"), "electronics");
    EXPECT_EQ(controlField("Priority"), "optional");
    EXPECT_TRUE(std::regex_match(controlField("Maintainer"), std::regex(".+ <[^ @]+@[^ @]+>")))
        << controlField("Maintainer");
    const auto description = linesOf(controlField("Description"));
    ASSERT_GE(description.size(), 3U);
    EXPECT_EQ(description.front(), "update and configure QUENDRAL Controllers");
}

// The libraries come from dpkg-shlibdeps (so they follow whatever the programs
// link); the two flashing tools are run, not linked, and are named by hand.
TEST(PackageControl, DependsOnTheLinkedLibrariesAndTheTwoFlashingTools)
{
    std::set<std::string> names;
    std::istringstream depends(controlField("Depends"));
    for (std::string item; std::getline(depends, item, ',');) {
        names.insert(trimmed(item.substr(0, item.find('('))));
    }
    for (const char* needed :
         {"avrdude", "bossa-cli", "libc6", "libstdc++6", "libqt6widgets6", "libqt6core6", "libudev1", "libcurl4"}) {
        EXPECT_EQ(names.count(needed), 1U) << needed << " missing from Depends: " << controlField("Depends");
    }
}

// The maintainer scripts run against a udev that is there and answers, one
// that fails, and none at all (a chroot, a container): the package installs
// and goes in every case. A mount namespace of the test's own gives the
// scripts a /run with or without udev's control socket, and a udevadm of the
// test's own records what it was asked.
class MaintainerScriptTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const auto extract = run("dpkg-deb --control " + shellQuoted(packageFile().string()) + " " +
                                 shellQuoted((dir.path() / "control").string()));
        ASSERT_EQ(extract.exitCode, 0) << extract.output;
        fs::create_directories(dir.path() / "bin");
    }

    // Runs `script arguments`; what the fake udevadm was asked, one call a line.
    std::string runScript(const std::string& script, const std::string& arguments, bool udevRunning, int udevadmExit)
    {
        const auto calls = dir.path() / "calls";
        fs::remove(calls);
        std::ofstream(dir.path() / "bin" / "udevadm")
            << "#!/bin/sh\necho \"$*\" >> " << shellQuoted(calls.string()) << "\nexit " << udevadmExit << "\n";
        fs::permissions(dir.path() / "bin" / "udevadm", fs::perms::owner_all);
        const std::string socket = udevRunning ? " && mkdir /run/udev && python3 -c 'import socket, sys; "
                                                 "socket.socket(socket.AF_UNIX).bind(sys.argv[1])' /run/udev/control"
                                               : "";
        const std::string inner = "mount -t tmpfs tmpfs /run" + socket +
                                  " && PATH=" + shellQuoted((dir.path() / "bin").string()) + ":$PATH sh " +
                                  shellQuoted((dir.path() / "control" / script).string()) + " " + arguments;
        const auto result = run("unshare -r -m sh -c " + shellQuoted(inner));
        EXPECT_EQ(result.exitCode, 0) << script << " " << arguments << ": " << result.output;
        return contentsOf(calls);
    }

    TempDir dir;
};

TEST_F(MaintainerScriptTest, AreExecutableShellScripts)
{
    for (const char* script : {"postinst", "postrm"}) {
        const auto status = fs::status(dir.path() / "control" / script);
        EXPECT_EQ(status.permissions(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                            fs::perms::others_read | fs::perms::others_exec)
            << script;
        EXPECT_EQ(contentsOf(dir.path() / "control" / script).rfind("#!/bin/sh\n", 0), 0U) << script;
    }
}

TEST_F(MaintainerScriptTest, InstallAndRemovalReloadTheRulesAndRetriggerTheSerialPorts)
{
    const std::string reload = "control --reload-rules\ntrigger --subsystem-match=tty\n";
    EXPECT_EQ(runScript("postinst", "configure", true, 0), reload);
    EXPECT_EQ(runScript("postrm", "remove", true, 0), reload);
    EXPECT_EQ(runScript("postrm", "purge", true, 0), reload);
    // An upgrade removes the old version's files only to put the new ones back.
    EXPECT_EQ(runScript("postrm", "upgrade 1.0.0", true, 0), "");
}

TEST_F(MaintainerScriptTest, NeitherAFailingNorAMissingUdevFailsTheInstallation)
{
    EXPECT_EQ(runScript("postinst", "configure", true, 1), "control --reload-rules\n");
    EXPECT_EQ(runScript("postrm", "remove", true, 1), "control --reload-rules\n");
    EXPECT_EQ(runScript("postinst", "configure", false, 0), "");
    EXPECT_EQ(runScript("postrm", "remove", false, 0), "");
}

// ---------------------------------------------------------------------------
// What it puts on the disk

TEST(PackageFiles, AreExactlyTheProgramsTheirResourcesAndTheirDesktopIntegration)
{
    // path -> link target, or "" for a regular file
    std::map<std::string, std::string> expected = {
        {"./usr/bin/quendral-cli", ""},
        {"./usr/bin/quendral-firmware-updater", ""},
        {"./usr/share/quendral-firmware-updater/avrdude", "/usr/bin/avrdude"},
        {"./usr/share/quendral-firmware-updater/bossac", "/usr/bin/bossac"},
        {"./usr/share/quendral-firmware-updater/avrdude.conf", "/etc/avrdude.conf"},
        {"./usr/lib/udev/rules.d/70-quendral-controllers.rules", ""},
        {"./usr/share/applications/quendral-firmware-updater.desktop", ""},
        {"./usr/share/metainfo/example.quendral.FirmwareUpdater.metainfo.xml", ""},
        {"./usr/share/icons/hicolor/scalable/apps/quendral-firmware-updater.svg", ""},
        {"./usr/share/man/man1/quendral-cli.1.gz", ""},
        {"./usr/share/man/man1/quendral-firmware-updater.1.gz", ""},
        {"./usr/share/bash-completion/completions/quendral-cli", ""},
        {"./usr/share/doc/quendral-firmware-updater/changelog.gz", ""},
        {"./usr/share/doc/quendral-firmware-updater/copyright", ""},
        {"./usr/share/lintian/overrides/quendral-firmware-updater", ""},
    };
    for (const char* size : {"16", "22", "24", "32", "48", "64", "128", "256"}) {
        expected[std::string("./usr/share/icons/hicolor/") + size + "x" + size +
                 "/apps/quendral-firmware-updater.png"] = "";
    }
    // Only a file the maker named when the package was made; never a stand-in.
    if (!environment("QUENDRAL_PACKAGED_INTERMEDIATE").empty()) {
        expected["./usr/share/quendral-firmware-updater/intermediate_due.hex"] = "";
    }

    const auto listing = run("dpkg-deb --contents " + shellQuoted(packageFile().string()));
    ASSERT_EQ(listing.exitCode, 0) << listing.output;
    std::map<std::string, std::string> found;
    std::map<std::string, std::string> modes;
    for (const auto& line : linesOf(listing.output)) {
        // drwxr-xr-x root/root 0 2026-11-23 17:51 ./usr/ [-> target]
        std::istringstream in(line);
        std::vector<std::string> words;
        for (std::string word; in >> word;) {
            words.push_back(word);
        }
        ASSERT_GE(words.size(), 6U) << line;
        const std::string& mode = words[0];
        const std::string& path = words[5];
        EXPECT_EQ(words[1], "root/root") << line;
        if (mode.front() != 'd') {
            found[path] = mode.front() == 'l' && words.size() == 8 ? words[7] : "";
            modes[path] = mode;
        }
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(modes["./usr/bin/quendral-cli"], "-rwxr-xr-x");
    EXPECT_EQ(modes["./usr/bin/quendral-firmware-updater"], "-rwxr-xr-x");
    EXPECT_EQ(modes["./usr/lib/udev/rules.d/70-quendral-controllers.rules"], "-rw-r--r--");
}

TEST(PackageFiles, TheIntermediateFirmwareIsTheFileTheMakerNamed)
{
    const std::string named = environment("QUENDRAL_PACKAGED_INTERMEDIATE");
    UnpackedPackage unpacked;
    const auto packaged = unpacked / "usr/share/quendral-firmware-updater/intermediate_due.hex";
    if (named.empty()) {
        EXPECT_FALSE(fs::exists(packaged));
    } else {
        EXPECT_EQ(contentsOf(packaged), contentsOf(named));
    }
}

TEST(PackageFiles, ProgramsAreStripped)
{
    UnpackedPackage unpacked;
    for (const char* program : {"usr/bin/quendral-cli", "usr/bin/quendral-firmware-updater"}) {
        const auto sections = run("objdump --section-headers " + shellQuoted((unpacked / program).string()));
        EXPECT_EQ(sections.exitCode, 0) << sections.output;
        EXPECT_EQ(sections.output.find(".debug_info"), std::string::npos) << program;
        EXPECT_EQ(sections.output.find(".symtab"), std::string::npos) << program;
    }
}

// PNG: the signature, then the IHDR chunk with width and height (big-endian).
TEST(PackageFiles, EachIconIsThePictureSizeItsFolderSays)
{
    UnpackedPackage unpacked;
    int icons = 0;
    for (const auto& entry : fs::recursive_directory_iterator(unpacked / "usr/share/icons/hicolor")) {
        if (entry.path().extension() != ".png") {
            continue;
        }
        ++icons;
        const std::string folder = entry.path().parent_path().parent_path().filename().string(); // 48x48
        const std::string png = contentsOf(entry.path());
        ASSERT_GE(png.size(), 24U) << entry.path();
        EXPECT_EQ(png.substr(0, 8), std::string("\x89PNG\r\n\x1a\n", 8)) << entry.path();
        EXPECT_EQ(png.substr(12, 4), "IHDR") << entry.path();
        auto number = [&](std::size_t at) {
            unsigned value = 0;
            for (std::size_t i = 0; i < 4; ++i) {
                value = (value << 8U) | static_cast<unsigned char>(png[at + i]);
            }
            return std::to_string(value);
        };
        EXPECT_EQ(number(16) + "x" + number(20), folder) << entry.path();
    }
    EXPECT_EQ(icons, 8);
    EXPECT_NE(contentsOf(unpacked / "usr/share/icons/hicolor/scalable/apps/quendral-firmware-updater.svg").find("<svg"),
              std::string::npos);
}

// ---------------------------------------------------------------------------
// What Debian's checkers say

// Every warning is either fixed or overridden with its reason
// (resources/debian/lintian-overrides, README "Packaging"). The overridden
// ones are shown (O:) but not counted; once shown, lintian would count them in
// its exit status, so warnings are read from the lines.
TEST(PackageLint, LintianFindsNoErrorAndNoWarning)
{
    const auto lint =
        run("lintian --fail-on error --display-info --show-overrides " + shellQuoted(packageFile().string()));
    std::cout << lint.output;
    EXPECT_EQ(lint.exitCode, 0) << lint.output;
    for (const auto& line : linesOf(lint.output)) {
        EXPECT_NE(line.rfind("E: ", 0), 0U) << line;
        EXPECT_NE(line.rfind("W: ", 0), 0U) << line;
    }
}

TEST(PackageLint, TheDesktopEntryValidatesAndNamesTheShippedIcon)
{
    UnpackedPackage unpacked;
    const auto entry = unpacked / "usr/share/applications/quendral-firmware-updater.desktop";
    const auto validate = run("desktop-file-validate " + shellQuoted(entry.string()));
    EXPECT_EQ(validate.exitCode, 0) << validate.output;
    EXPECT_EQ(validate.output, "");
    const std::string text = contentsOf(entry);
    EXPECT_NE(text.find("\nIcon=quendral-firmware-updater\n"), std::string::npos) << text;
    EXPECT_NE(text.find("\nExec=quendral-firmware-updater\n"), std::string::npos) << text;
}

// Offline: the home page and screenshot addresses are the maker's, checked
// when they are published, not here.
TEST(PackageLint, TheAppStreamEntryValidatesAndAnnouncesEveryBoardOfTheUdevRule)
{
    UnpackedPackage unpacked;
    const auto metainfo = unpacked / "usr/share/metainfo/example.quendral.FirmwareUpdater.metainfo.xml";
    const auto validate = run("appstreamcli validate --no-net " + shellQuoted(metainfo.string()));
    EXPECT_EQ(validate.exitCode, 0) << validate.output;

    const std::string text = contentsOf(metainfo);
    const std::string rule = contentsOf(unpacked / "usr/lib/udev/rules.d/70-quendral-controllers.rules");
    const std::regex identity(R"re(ATTRS\{idVendor\}=="([0-9a-f]{4})", ATTRS\{idProduct\}=="([0-9a-f]{4})")re");
    int identities = 0;
    for (std::sregex_iterator it(rule.begin(), rule.end(), identity), end; it != end; ++it) {
        ++identities;
        const std::string alias = "usb:v" + upper((*it)[1].str()) + "p" + upper((*it)[2].str()) + "d*";
        EXPECT_NE(text.find("<modalias>" + alias + "</modalias>"), std::string::npos) << alias;
    }
    EXPECT_EQ(identities, 8);
}

// udev's own parser: `udevadm verify` where this udev has it (systemd 254 and
// later), else `udevadm test` in a mount namespace of the test's own where the
// rule is the only file in /etc/udev/rules.d; it names each line it cannot
// parse ("<file>:<line> Invalid key ..."). A broken copy shows the check
// catches what it must.
namespace {

class UdevRuleCheck {
public:
    explicit UdevRuleCheck(const fs::path& rule)
    {
        if (run("udevadm verify --help").exitCode == 0) {
            const auto verify = run("udevadm verify " + shellQuoted(rule.string()));
            _accepted = verify.exitCode == 0;
            _output = verify.output;
            return;
        }
        TempDir rules;
        fs::copy_file(rule, rules.path() / rule.filename());
        const auto test = run("unshare -r -m sh -c " +
                              shellQuoted("mount --bind " + shellQuoted(rules.path().string()) +
                                          " /etc/udev/rules.d && udevadm test --action=add /sys/class/tty/ptmx"));
        _output = test.output;
        const std::string installed = "/etc/udev/rules.d/" + rule.filename().string();
        const bool read = test.output.find("Reading rules file: " + installed + "\n") != std::string::npos;
        const bool complaint = test.output.find("\n" + installed + ":") != std::string::npos;
        _accepted = test.exitCode == 0 && read && !complaint;
    }
    [[nodiscard]] bool accepted() const { return _accepted; }
    [[nodiscard]] const std::string& output() const { return _output; }

private:
    bool _accepted = false;
    std::string _output;
};

} // namespace

TEST(PackageLint, TheUdevRuleParsesAsUdevReadsIt)
{
    UnpackedPackage unpacked;
    const auto rule = unpacked / "usr/lib/udev/rules.d/70-quendral-controllers.rules";
    const UdevRuleCheck check(rule);
    EXPECT_TRUE(check.accepted()) << check.output();

    TempDir broken;
    const auto copy = broken.path() / rule.filename();
    std::string text = contentsOf(rule);
    const auto tag = text.find(", TAG+=");
    ASSERT_NE(tag, std::string::npos);
    text.replace(tag, 7, ", TAGG+=");
    std::ofstream(copy) << text;
    EXPECT_FALSE(UdevRuleCheck(copy).accepted()) << "the check did not notice a broken key";
}

// ---------------------------------------------------------------------------
// The manual pages and the completion

namespace {

// Options as words: -p, --port, ... (troff's \- read as a hyphen, fonts dropped).
std::set<std::string> optionsIn(std::string text)
{
    text = std::regex_replace(text, std::regex(R"(\\-)"), "-");
    text = std::regex_replace(text, std::regex(R"(\\f[BIRP])"), "");
    std::set<std::string> options;
    const std::regex option(R"((?:^|[\s,\[(|])(--?[A-Za-z][A-Za-z-]*))");
    for (std::sregex_iterator it(text.begin(), text.end(), option), end; it != end; ++it) {
        options.insert((*it)[1].str());
    }
    return options;
}

std::string manualPage(const UnpackedPackage& unpacked, const std::string& name)
{
    const auto page = unpacked / ("usr/share/man/man1/" + name + ".1.gz");
    return runShellCommand("gzip -dc " + shellQuoted(page.string())).output;
}

} // namespace

TEST(PackageDocs, TheCommandLinesManualPageHasEveryOptionAndCommandOfItsHelpAndNoOther)
{
    UnpackedPackage unpacked;
    const auto help = runShellCommand(shellQuoted((unpacked / "usr/bin/quendral-cli").string()) + " --help");
    ASSERT_EQ(help.exitCode, 0) << help.output;
    const std::string page = manualPage(unpacked, "quendral-cli");
    EXPECT_EQ(optionsIn(page), optionsIn(help.output));
    EXPECT_GE(optionsIn(help.output).size(), 10U);

    // Commands: the help's "Commands:" block, the page's COMMANDS section.
    std::set<std::string> helpCommands;
    bool inCommands = false;
    for (const auto& line : linesOf(help.output)) {
        if (line == "Commands:") {
            inCommands = true;
        } else if (line.empty()) {
            inCommands = false;
        } else if (inCommands && line.size() > 2 && line[2] != ' ') {
            helpCommands.insert(line.substr(2, line.find(' ', 2) - 2));
        }
    }
    std::set<std::string> pageCommands;
    std::string section = page.substr(page.find(".SH COMMANDS"), page.find(".SH OPTIONS") - page.find(".SH COMMANDS"));
    // The indented list of ip's keys holds no command.
    section = std::regex_replace(section, std::regex(R"(\n\.RS\n[\s\S]*?\n\.RE\n)"), "\n");
    const std::regex tag(R"(\n\.TP\n(?:\.B |\\fB)((?:[a-z]|\\-)+))");
    for (std::sregex_iterator it(section.begin(), section.end(), tag), end; it != end; ++it) {
        pageCommands.insert(std::regex_replace((*it)[1].str(), std::regex(R"(\\-)"), "-"));
    }
    EXPECT_EQ(pageCommands, helpCommands);
    EXPECT_EQ(helpCommands.size(), 11U);
}

TEST(PackageDocs, TheWindowsManualPageHasTheOptionsItAnswers)
{
    UnpackedPackage unpacked;
    const auto help =
        runShellCommand("QT_QPA_PLATFORM=offscreen " +
                        shellQuoted((unpacked / "usr/bin/quendral-firmware-updater").string()) + " --help");
    ASSERT_EQ(help.exitCode, 0) << help.output;
    EXPECT_EQ(optionsIn(manualPage(unpacked, "quendral-firmware-updater")), optionsIn(help.output));
}

TEST(PackageDocs, ManualPagesRenderWithoutWarnings)
{
    UnpackedPackage unpacked;
    for (const char* name : {"quendral-cli", "quendral-firmware-updater"}) {
        const auto page = unpacked / (std::string("usr/share/man/man1/") + name + ".1.gz");
        const auto rendered = runShellCommand("LC_ALL=C.UTF-8 MANWIDTH=80 man --warnings -l " +
                                              shellQuoted(page.string()) + " 2>&1 >/dev/null");
        EXPECT_EQ(rendered.exitCode, 0) << name;
        EXPECT_EQ(rendered.output, "") << name;
    }
}

TEST(PackageDocs, BashCompletesTheCommandLinesCommandsAndOptions)
{
    UnpackedPackage unpacked;
    const auto completion = unpacked / "usr/share/bash-completion/completions/quendral-cli";
    auto complete = [&](const std::string& words) {
        const std::string script = "source /usr/share/bash-completion/bash_completion; source " +
                                   shellQuoted(completion.string()) + "; COMP_WORDS=(" + words +
                                   "); COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); COMP_LINE=\"${COMP_WORDS[*]}\"; "
                                   "COMP_POINT=${#COMP_LINE}; _quendral_cli; echo \"${COMPREPLY[*]}\"";
        return trimmed(runShellCommand("bash -c " + shellQuoted(script) + " 2>/dev/null").output);
    };
    EXPECT_EQ(complete("quendral-cli up"), "update");
    EXPECT_EQ(complete("quendral-cli online"), "online-config");
    EXPECT_EQ(complete("quendral-cli update --ca"), "--ca-file");
    EXPECT_EQ(complete("quendral-cli flash --res"), "--resources");
    EXPECT_EQ(complete("quendral-cli update --al"), "--all");
    EXPECT_EQ(complete("quendral-cli ip --al"), "");
    EXPECT_EQ(complete("quendral-cli ''"),
              "ports identify update flash ip webconfig online-config monitor doctor log help --help --version -h -V");
}

// ---------------------------------------------------------------------------
// The unpacked programs at work

// No --resources: the command line finds its tools beside itself
// (../share/quendral-firmware-updater), and they are the system's.
TEST(UnpackedPackage, TheCommandLineUpdatesTheLabsControllerWithTheFolderBesideIt)
{
    UnpackedPackage unpacked;
    const auto cli = unpacked / "usr/bin/quendral-cli";
    const LabRun lab = runInLab({}, {cli.string(), "update", "--yes", "--server", "{server}", "--ca-file", "{ca}"});
    EXPECT_EQ(lab.exitCode, 0) << lab.output;
    EXPECT_TRUE(inOrder(lab.output,
                        {"Firmware upgrade file is being generated on the server. Please wait..", "Writing firmware...",
                         "Verifying firmware...", "Firmware successfully updated!", "now runs version 2.0.0"}))
        << lab.output;
    EXPECT_TRUE(lab.logged("Flashing tools from " + (unpacked / "usr/share/quendral-firmware-updater").string()))
        << lab.log;
    ASSERT_FALSE(lab.requests.empty());
    EXPECT_EQ(lab.requests.back().value("cmd", ""), "ticket_status");
    EXPECT_EQ(lab.requests.back().value("success", false), true);
}

TEST(UnpackedPackage, TheWindowAnswersVersion)
{
    UnpackedPackage unpacked;
    const auto version = run("QT_QPA_PLATFORM=offscreen timeout 10 " +
                             shellQuoted((unpacked / "usr/bin/quendral-firmware-updater").string()) + " --version");
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output, "quendral-firmware-updater " + environment("QUENDRAL_PACKAGE_VERSION") + "\n");
}

// The start-up probe quits the window 1.5 s after it has been painted.
TEST(UnpackedPackage, TheWindowStartsOffscreenAndShowsItsMainWindow)
{
    UnpackedPackage unpacked;
    TempDir data;
    const auto started =
        run("QT_QPA_PLATFORM=offscreen QUENDRAL_BENCH_STARTUP=1 XDG_DATA_HOME=" + shellQuoted(data.path().string()) +
            " timeout 30 " + shellQuoted((unpacked / "usr/bin/quendral-firmware-updater").string()));
    EXPECT_EQ(started.exitCode, 0) << started.output;
    EXPECT_NE(started.output.find("first-show-ms "), std::string::npos) << started.output;
    const std::string log = contentsOf(data.path() / "QuendralFirmwareUpdater" / "log.txt");
    EXPECT_NE(log.find("] Starting QUENDRAL Firmware Updater mac_" + environment("QUENDRAL_PACKAGE_VERSION") +
                       " for macOS\n"),
              std::string::npos)
        << log;
}

#include "controller/port_access.h"

#include <grp.h>
#include <sys/stat.h>
#include <vector>

namespace quendral {
namespace {

// The group of the device node, or none when it cannot be told.
std::string deviceGroup(const std::string& path)
{
    struct stat node {};
    if (::stat(path.c_str(), &node) != 0) {
        return {};
    }
    std::vector<char> buffer(16384);
    group entry{};
    group* found = nullptr;
    if (::getgrgid_r(node.st_gid, &entry, buffer.data(), buffer.size(), &found) != 0 || found == nullptr) {
        return node.st_gid == 0 ? std::string("root") : std::to_string(node.st_gid);
    }
    return found->gr_name;
}

} // namespace

std::string portAccessDeniedText(const std::string& path)
{
    const std::string group = deviceGroup(path);
    const std::string denied = "Permission denied: this user may not open " + path + ".\n\n";
    if (group.empty() || group == "root") {
        // Joining root's group is no fix: the rule hands such ports to dialout.
        return denied + "The port is root's alone. Install the udev rule " + kControllersUdevRule +
               " that comes with QUENDRAL Firmware Updater (it gives Controller ports to the group \"dialout\"), add "
               "your user to that group (sudo usermod -aG dialout $USER, then log out and back in) and plug the "
               "Controller in again.";
    }
    return denied + "The port belongs to the group \"" + group + "\". Add your user to that group (sudo usermod -aG " +
           group + " $USER, then log out and back in), or install the udev rule " + kControllersUdevRule +
           " that comes with QUENDRAL Firmware Updater and plug the Controller in again.";
}

} // namespace quendral

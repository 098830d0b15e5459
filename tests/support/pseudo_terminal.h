#pragma once
// A pseudo-terminal whose device end nobody answers on: a serial port with a
// board that never speaks.
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace quendral::test {

class SilentPseudoTerminal {
public:
    SilentPseudoTerminal()
    {
        _master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (_master < 0 || ::grantpt(_master) != 0 || ::unlockpt(_master) != 0) {
            std::abort();
        }
        char name[128];
        if (::ptsname_r(_master, name, sizeof name) != 0) {
            std::abort();
        }
        _path = name;
    }
    ~SilentPseudoTerminal() { ::close(_master); }
    SilentPseudoTerminal(const SilentPseudoTerminal&) = delete;
    SilentPseudoTerminal& operator=(const SilentPseudoTerminal&) = delete;

    // The path a program opens, e.g. /dev/pts/3.
    [[nodiscard]] const std::string& path() const { return _path; }

private:
    int _master = -1;
    std::string _path;
};

} // namespace quendral::test

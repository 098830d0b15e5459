#pragma once
// The IP dump of a Controller with a fixed address and two devices, as the
// tests of the IP window and of `quendral-cli ip` use it.
#include <string>
#include <vector>

namespace quendral::test {

inline const std::vector<std::string> kDump = {"ip;192.168.10.50",
                                               "subnet;255.255.255.0",
                                               "gateway;192.168.10.1",
                                               "dns;192.168.10.2",
                                               "dev;1;Boiler room;192.168.10.60;1",
                                               "dev;2;Garage;192.168.10.61;0"};

} // namespace quendral::test

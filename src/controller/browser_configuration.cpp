#include "controller/browser_configuration.h"

#include "log/logger.h"

#include <cctype>
#include <cstdio>

#ifndef QUENDRAL_ONLINE_CONFIG_HOST
#error "QUENDRAL_ONLINE_CONFIG_HOST must be defined by the build"
#endif

namespace quendral {
namespace {

std::string percentEncoded(const std::string& text)
{
    std::string encoded;
    for (const unsigned char c : text) {
        if (std::isalnum(c) != 0 || c == '-' || c == '_' || c == '.' || c == '~') {
            encoded += static_cast<char>(c);
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X", c);
            encoded += escape;
        }
    }
    return encoded;
}

} // namespace

std::string onlineConfigurationURL(const std::string& cid)
{
    return std::string("https://") + QUENDRAL_ONLINE_CONFIG_HOST + "/?CID=" + percentEncoded(cid);
}

bool openOnlineConfiguration(ControllerLink& link, OwnerFeedback& feedback, const PortPath& port)
{
    if (const auto cid = link.getCID(port)) {
        feedback.openURL(onlineConfigurationURL(*cid));
        return true;
    }
    // A Controller that answered with a message has had it shown already.
    if (!link.deviceMessage() && !link.portAccessDenied()) {
        feedback.alert("Could not get device identification. Please contact support.");
    }
    return false;
}

bool openLocalConfiguration(ControllerLink& link, OwnerFeedback& feedback, const PortPath& port)
{
    if (const auto address = link.getIP(port)) {
        feedback.openURL("http://" + *address);
        return true;
    }
    if (!link.portAccessDenied()) { // else told why already, with the fix
        Logger::log("Error Could not get Ip for local config");
        feedback.alert("Could not get device IP. Please contact support.");
    }
    return false;
}

bool toggleWebConfiguration(ControllerLink& link, OwnerFeedback& feedback, const PortPath& port)
{
    const auto result = link.toggleWebconfig(port);
    feedback.status("");
    if (!result && link.portAccessDenied()) {
        return false;
    }
    if (!result) {
        Logger::log("Error toggling Webconfig.");
        feedback.alert("Error toggling Webconfig.");
        return false;
    }
    if (*result == "off") {
        Logger::log("Webconfig is now off");
        feedback.alert("Webconfig sucessfully disabeled");
        return true;
    }
    Logger::log("Webconfig is now on!");
    feedback.openURL("http://" + *result);
    return true;
}

} // namespace quendral

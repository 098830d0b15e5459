#pragma once
// The three ways to configure a Controller in the browser, as work any front
// end runs on a background thread: ask the Controller, open the page, or tell
// the owner why not. Each returns whether it got that far.
#include "controller/controller_link.h"
#include "controller/owner_feedback.h"
#include "controller/port_path.h"

#include <string>

namespace quendral {

// The online configuration page of the Controller with this identifier.
[[nodiscard]] std::string onlineConfigurationURL(const std::string& cid);

// Reads the identifier and opens the online configuration page.
bool openOnlineConfiguration(ControllerLink& link, OwnerFeedback& feedback, const PortPath& port);
// Sends the Controller into configuration mode and opens the page at the
// address it announces (the legacy local configuration).
bool openLocalConfiguration(ControllerLink& link, OwnerFeedback& feedback, const PortPath& port);
// Switches the Controller's web server: opens its page when it is now on,
// says so when it is now off.
bool toggleWebConfiguration(ControllerLink& link, OwnerFeedback& feedback, const PortPath& port);

} // namespace quendral

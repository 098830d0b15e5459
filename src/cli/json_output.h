#pragma once
// quendral-cli --json: one JSON object per result, a line each, on standard
// output. The keys are stable (scripts read them) and documented in --help:
//
//   port, path          the port's name and device path
//   vendor, product     the USB identity, four hex digits each
//   board               the board table's name, or null for an unknown board
//   cid, version        the Controller's identifier and firmware version (or null)
//   outcome             what came of the command (outcomeKey below)
//   error               why it failed, for a person (or null)
//
// Text that came from a Controller or a server and is not UTF-8 is written
// with U+FFFD in place of the bytes that are not.
#include "controller/update_outcome.h"

#include <nlohmann/json.hpp>

#include <string>

namespace quendral::cli {

// The outcome of an update or an upload as a key: "updated", "upload-failed",
// "no-update-needed", ... (one for each UpdateOutcome).
[[nodiscard]] std::string outcomeKey(UpdateOutcome outcome);

// Writes `object` on one line of standard output.
void printJson(const nlohmann::json& object);

// A text, or null when there is none.
[[nodiscard]] nlohmann::json textOrNull(const std::optional<std::string>& text);

} // namespace quendral::cli

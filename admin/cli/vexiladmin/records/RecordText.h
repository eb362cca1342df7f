/// How the commands show what the client library's records hold.
#pragma once

#include <cstdint>

#include "admin/client-interface/olm_dsess_admin.h"
#include "runtime/QelString.h"
#include "runtime/QelTimeText.h"

/// A text of a record in the locale's encoding, on one line whatever a server put into it: what could drive a terminal
/// is visible, a final line feed included. Null counts as empty.
QelString recordText(const char* text);

/// The text of a server's time: "2026-11-24-09:30:00 UTC", always in UTC.
struct TimeText : QelTimeText {
    explicit TimeText(std::int32_t seconds) : QelTimeText(seconds, "%Y-%m-%d-%H:%M:%S UTC") {}
};

/// Prints the key's label and time, and the time of the key before it if there is one, as one message and a line feed.
void printKeyReport(const olm_dsess_admin_cluster_t& cluster);

/// Writes that the value given for `name` is not valid, on a line of its own, and returns kStatusInvalidValue.
std::uint32_t refuseValue(const char* name);

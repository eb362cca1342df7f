/// Text of the client library's records, made fit to be shown.
#pragma once

#include "runtime/QelString.h"

/// A text of a record in the locale's encoding, on one line whatever a server put into it: what could drive a terminal
/// is visible, a final line feed included. Null counts as empty.
QelString recordText(const char* text);

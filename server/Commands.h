/// Carry out what the command line asks for. Each returns an exit status, and throws an exception with one line of text
/// when it cannot.
#pragma once

#include "server/Options.h"

namespace dsessd {

int serve(const ServeOptions& options);
int moveData(const DataOptions& options);
int administrate(const AdminOptions& options);

}  // namespace dsessd

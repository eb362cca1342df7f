/// What the command line asks for, done. Each returns an exit status; what stands in the way comes out as an exception
/// with one line of text.
#pragma once

#include "server/Options.h"

namespace dsessd {

int serve(const ServeOptions& options);
int moveData(const DataOptions& options);
int administrate(const AdminOptions& options);

}  // namespace dsessd

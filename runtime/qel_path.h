/// Where the program's files lie.
#pragma once

#include "runtime/QelString.h"

/// Selector of the configuration directory.
inline constexpr int kPathConfiguration = 2;

/// The directory of a selector, ending in `/`. Configuration: QEL_CONFIG_DIR when set and not empty, else the installed
/// `<sysconfdir>/vexiladmin/`. Empty for an unknown selector. Throws std::bad_alloc.
QelString qel_get_path(int selector);

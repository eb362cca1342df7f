/// Where the program's files lie.
#pragma once

#include "catalogue/QelString.h"

/// Selector of the configuration directory.
inline constexpr int kPathConfiguration = 2;
/// Selector of the directory of message translations.
inline constexpr int kPathTranslations = 3;

/// The directory of a selector, ending in `/`; empty for an unknown one. Configuration: QEL_CONFIG_DIR when set and not
/// empty, else `<sysconfdir>/vexiladmin/`. Translations: `<localedir>/`. Unless the build named these by absolute
/// paths, they lie below the prefix under which the running program is installed, whatever it is: its path before
/// `/bin/NAME`, or the build's prefix where it has none. As everywhere, the `etc` of `/usr` is `/etc`. Throws
/// std::bad_alloc.
QelString qel_get_path(int selector);

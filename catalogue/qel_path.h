/// Tells in which directories the program finds its configuration and its translations.
#pragma once

#include "catalogue/QelString.h"

/// Selector of the configuration directory.
inline constexpr int kPathConfiguration = 2;
/// Selector of the directory of message translations.
inline constexpr int kPathTranslations = 3;

/// The directory of a selector, ending in `/`. It is empty for an unknown selector.
///
/// The configuration lies in the directory that QEL_CONFIG_DIR names if that is set and not empty, else in
/// `<sysconfdir>/vexiladmin/`; translations lie in `<localedir>/`. Where the build gave these two as relative paths,
/// they begin at the prefix of the running program: the part of its path before `/bin/NAME`, or the build's prefix if
/// its path is none of that form. The `etc` of the prefix `/usr` is `/etc`. Throws std::bad_alloc.
QelString qel_get_path(int selector);

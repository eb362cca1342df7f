#include "runtime/qel_path.h"

#include <cstdlib>

QelString qel_get_path(int selector) {
    if (selector != kPathConfiguration) {
        return {};
    }
    const char* directory = std::getenv("QEL_CONFIG_DIR");
    if (directory == nullptr || *directory == '\0') {
        return QelString(VEXIL_SYSCONFDIR "/vexiladmin/");
    }
    QelString path(directory);
    if (!path.view().ends_with('/')) {
        path.append("/");
    }
    return path;
}

#include "catalogue/qel_path.h"

#include <unistd.h>

#include <array>
#include <climits>
#include <cstdlib>
#include <string_view>

namespace {

constexpr std::string_view kBin = "/" VEXIL_BINDIR "/";

/// The prefix of the running program, or that of the build. `buffer` holds the result.
std::string_view findPrefix(std::array<char, PATH_MAX>& buffer) {
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size());
    std::string_view path(buffer.data(), length > 0 ? static_cast<std::size_t>(length) : 0);
    path = path.substr(0, path.rfind('/') + 1);
    return path.ends_with(kBin) ? path.substr(0, path.size() - kBin.size()) : VEXIL_PREFIX;
}

/// The path of a directory that the build gave, which may begin at the prefix.
QelString installed(std::string_view directory) {
    std::array<char, PATH_MAX> buffer;
    QelString path;
    if (!directory.starts_with('/')) {
        const std::string_view prefix = findPrefix(buffer);
        path.append(prefix == "/usr" && directory == "etc" ? "" : prefix);
        path.append("/");
    }
    path.append(directory);
    return path;
}

}  // namespace

QelString qel_get_path(int selector) {
    if (selector != kPathConfiguration && selector != kPathTranslations) {
        return {};
    }
    QelString path;
    const char* named = std::getenv("QEL_CONFIG_DIR");
    if (selector == kPathTranslations) {
        path = installed(VEXIL_LOCALEDIR);
    } else if (named == nullptr || *named == '\0') {
        path = installed(VEXIL_SYSCONFDIR);
        path.append("/vexiladmin");
    } else {
        path.append(named);
    }
    if (!path.view().ends_with('/')) {
        path.append("/");
    }
    return path;
}

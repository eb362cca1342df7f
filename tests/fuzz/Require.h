/// What a fuzz target holds its findings to, and where it keeps files.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#define REQUIRE(condition)           \
    static_cast<void>((condition) || \
                      (std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition), std::abort(), 0))

/// A new folder, which whoever set TMPDIR removes.
inline std::string scratchFolder() {
    std::string path = std::filesystem::temp_directory_path() / "fuzz-XXXXXX";
    REQUIRE(mkdtemp(path.data()) != nullptr);
    return path;
}

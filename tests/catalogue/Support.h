/// Fixtures of the tests of the runtime and of what stands on it.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

/// A new folder, removed with all it holds.
class TempFolder {
  public:
    TempFolder() : m_path(mkdtemp((std::filesystem::temp_directory_path() / "vexil-XXXXXX").string().data())) {}
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() { std::filesystem::remove_all(m_path); }

    std::string operator/(const char* name) const { return m_path / name; }

  private:
    std::filesystem::path m_path;
};

inline void writeFile(const std::string& path, std::string_view content) {
    std::ofstream(path, std::ios::binary) << content;
}

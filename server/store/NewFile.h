/// A file that comes to its place whole or not at all. Until then it lies beside it under another name, and it is
/// readable for its owner only from the first byte on.
#pragma once

#include <string>
#include <string_view>

#include "runtime/QelFileDescriptor.h"

namespace dsessd {

class NewFile {
  public:
    /// Makes it, empty, for whoever owns what is at `path`, if anything. Throws std::runtime_error, also where that is
    /// no file.
    explicit NewFile(const std::string& path);
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    /// Removes it unless it is at its place.
    ~NewFile();

    /// Where it lies until then.
    const std::string& temporaryPath() const { return m_temporaryPath; }
    /// Throws std::runtime_error, as place() does.
    void write(std::string_view text);
    /// Puts it in the place of what is there, once it is safe on the disk.
    void place();

  private:
    [[noreturn]] void fail() const;

    std::string m_path;
    std::string m_temporaryPath;
    QelFileDescriptor m_file;
};

}  // namespace dsessd

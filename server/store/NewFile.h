/// A file that appears at its path whole or not at all. Until it is whole it has another name beside that path. Only
/// its owner can read it, from its first byte on. A process has one at a time: SIGINT, SIGTERM and SIGHUP, which end
/// it, remove the file.
#pragma once

#include <string>
#include <string_view>

#include "runtime/QelFileDescriptor.h"

namespace dsessd {

class NewFile {
  public:
    /// Makes an empty file. When there is a file at `path`, its owner gets the new one. Throws std::runtime_error, also
    /// when what is at `path` is no file.
    explicit NewFile(const std::string& path);
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;
    /// Removes the file unless place() has succeeded.
    ~NewFile();

    /// The path of the file until place() is called.
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

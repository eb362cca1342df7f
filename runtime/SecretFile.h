/// Reads files that hold a private key or a password, and refuses those that others may read or write.
#pragma once

#include <sys/stat.h>

#include <string>

#include "runtime/SecretBuffer.h"

/// Thrown to say what is wrong with a file, as it follows the file's name: "is damaged".
struct UnusableFile {
    std::string why;
};

/// A regular file of 1 MiB at most, read whole and wiped at the end.
class SecretFile {
  public:
    static constexpr mode_t kNobodyElse = S_IRWXG | S_IRWXO;
    static constexpr mode_t kNobodyElseWrites = S_IWGRP | S_IWOTH;

    /// `moreFlags`: of open(2), beside those for reading. Throws UnusableFile, std::bad_alloc.
    SecretFile(const char* path, int moreFlags);
    SecretBuffer& bytes() { return m_bytes; }
    const SecretBuffer& bytes() const { return m_bytes; }
    /// Throws UnusableFile when the file belongs to somebody else than this process or root, or when others have one of
    /// these permissions. `why` ends the text that says so.
    void checkOwner(mode_t refused, const std::string& why) const;

  private:
    struct stat m_status {};
    SecretBuffer m_bytes;
};

/// The first line, without its end, of a file that nobody but its owner has permissions on. Symbolic links are not
/// followed. Throws UnusableFile, std::bad_alloc.
SecretBuffer readPasswordFile(const char* path);

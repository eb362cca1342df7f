/// The service log: failures that must not go to standard error. Syslog by default; the file named by QEL_SVC_LOG,
/// appended, when that is set. One line an entry: time, program and process, text with its inserts.
#pragma once

#include <cstdint>

/// Which part of the program speaks; shown in the entry.
enum class QelSvcHandle { kClient, kDeployment };

/// Selector arguments of an entry.
inline constexpr std::uint32_t kSvcGeneral = 0;
inline constexpr std::uint32_t kSvcConfiguration = 3;
inline constexpr std::uint32_t kSvcError = 32;
inline constexpr std::uint32_t kSvcErrorExit = 64;

/// Writes one entry: the message with its inserts, a final line feed dropped and controls made visible. `insertFormat`
/// names the inserts that follow ("%s%s%s", "" for none); they must be those of the message. `file` and `line` are the
/// source position, kept in the entry. Never fails: an entry that cannot be written is lost.
void qel_svc_printf_withfile(QelSvcHandle handle, const char* file, int line, const char* insertFormat,
                             std::uint32_t component, std::uint32_t severity, std::uint32_t identifier, ...) noexcept;

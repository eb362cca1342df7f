/// The service log: takes failures that must not stand among the program's output. An entry goes to the first of these
/// that takes it:
/// 1. the file that QEL_SVC_LOG names, if that is set and not empty; it is appended to, and made with mode 0600;
/// 2. syslog, if it listens;
/// 3. the file vexiladmin/service.log in XDG_STATE_HOME or ~/.local/state;
/// 4. standard error.
///
/// If standard error is a terminal it also shows notices, and errors unless QEL_SVC_LOG is set, in the locale's
/// language. An entry is one line and in English, so that it can be searched for whatever the locale:
///
///     2026-01-31T08:15:00Z vexiladmin[4711] client TarnAdminConfig.cpp:42 38C5209F Stanza [tarn] of ...
///
/// Syslog adds time, program and process itself.
#pragma once

#include <cstdint>

/// Which part of the program speaks; shown in the entry.
enum class QelSvcHandle { kClient, kDeployment };

/// Selector arguments of an entry.
inline constexpr std::uint32_t kSvcGeneral = 0;
inline constexpr std::uint32_t kSvcConfiguration = 3;
inline constexpr std::uint32_t kSvcNotice = 16;
inline constexpr std::uint32_t kSvcError = 32;
inline constexpr std::uint32_t kSvcErrorExit = 64;

/// Writes one entry: the message with its inserts, without line feeds at its end, controls made visible. `insertFormat`
/// names the inserts that follow, such as "%s%d" or "" for none; an error number is %d. If these are not the inserts of
/// the message, it is written without. `file` and `line` are the position in the source. `severity` becomes syslog's
/// warning, error or critical. `component` is not shown. An entry that cannot be written anywhere is lost.
void qel_svc_printf_withfile(QelSvcHandle handle, const char* file, int line, const char* insertFormat,
                             std::uint32_t component, std::uint32_t severity, std::uint32_t identifier, ...) noexcept;

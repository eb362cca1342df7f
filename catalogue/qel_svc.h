/// The service log: failures that no output of the program must have among it. The file named by QEL_SVC_LOG, appended
/// (mode 0600 when made anew), when that is set and not empty; without it, and when it cannot be written, syslog. Where
/// no syslog listens: vexiladmin/service.log in XDG_STATE_HOME or ~/.local/state, and as the last resort standard error
/// after all. Who sits before a terminal sees a notice there too, and without QEL_SVC_LOG an error, in the locale's
/// language and encoding, if standard error is that terminal. One line an entry, in English, so that it can be searched
/// whatever the locale:
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

/// Writes one entry: the message with its inserts, final line feeds dropped and controls made visible. `insertFormat`
/// names the inserts that follow ("%s%d", "" for none; an error number is %d); when they are not those of the message,
/// it is written without. `file` and `line` are the source position. `severity` becomes syslog's (warning, error,
/// critical); `component` is not shown. Never fails: an entry that cannot be written anywhere is lost.
void qel_svc_printf_withfile(QelSvcHandle handle, const char* file, int line, const char* insertFormat,
                             std::uint32_t component, std::uint32_t severity, std::uint32_t identifier, ...) noexcept;

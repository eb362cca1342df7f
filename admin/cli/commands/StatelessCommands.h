/// The commands that keep nothing between two lines: which ones there are, and how one is made. Each is a class in a
/// source file of its own, which knows the rest of it (StatelessCommand.h).
#pragma once

#include <memory>

#include "admin/cli/language/TarnAdminCmd.h"

template <class... Command>
struct CommandList {};

/// In the order of registration. The listing shows the last one first.
using StatelessCommands =
    CommandList<class TarnAdminReplicaSetList, class TarnAdminReplicaSetShow, class TarnAdminRealmList,
                class TarnAdminRealmShow, class TarnAdminKeyShow, class TarnAdminKeyChange, class TarnAdminSessList,
                class TarnAdminSessTerminate, class TarnAdminSessTerminateAll, class TarnAdminSessRefresh,
                class TarnAdminSessRefreshAll, class TarnAdminTraceSet, class TarnAdminTraceGet>;

/// Makes a command of the list. Throws std::bad_alloc. The command's source file instantiates it.
template <class Command>
std::unique_ptr<TarnAdminCmd> createCommand();

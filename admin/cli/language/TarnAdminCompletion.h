/// What the Tab key does at the prompt: finds the words that may stand at the cursor, from the commands' patterns.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/cli/language/TarnAdminCmdRegistry.h"

/// All text is in the locale's encoding and without anything that could drive a terminal.
struct TarnAdminCompletion {
    std::string insertion;             ///< at the cursor
    std::vector<std::string> choices;  ///< to be shown when there is nothing to insert; empty as well: nothing fits
};

/// Gives the values, in UTF-8, that are known for a placeholder such as `<realm-name>`. None: the user knows them.
using KnownValues = std::function<std::vector<std::string>(std::string_view)>;

/// Completes a line of which `before` stands before the cursor. If one word fits, it is inserted with a blank behind
/// it. If several fit, what they begin with in common is inserted. What cannot be inserted, such as a value that only
/// the user knows, is shown as the pattern has it. Throws std::bad_alloc.
TarnAdminCompletion completeLine(const TarnAdminCmdRegistry& commands, std::string_view before,
                                 const KnownValues& valuesOf);

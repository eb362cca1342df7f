/// What the Tab key does at the prompt: the command language's words where the cursor stands, from the patterns alone.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/cli/language/TarnAdminCmdRegistry.h"

/// All text is in the locale's encoding and without anything that could drive a terminal.
struct TarnAdminCompletion {
    std::string insertion;             ///< at the cursor
    std::vector<std::string> choices;  ///< to show, when there is nothing to insert; empty too: nothing fits
};

/// The values, in UTF-8, that a command's next word may have; empty: any.
using KnownValues = std::function<std::vector<std::string>(const TarnAdminCmd&)>;

/// Completes a line, of which `before` stands before the cursor. The only word that fits is inserted with a blank, and
/// of several words what they have in common; what cannot be inserted, such as a value that only its user knows, is
/// shown as the pattern has it. Throws std::bad_alloc.
TarnAdminCompletion completeLine(const TarnAdminCmdRegistry& commands, std::string_view before,
                                 const KnownValues& valuesOf);

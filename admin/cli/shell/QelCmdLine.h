/// The options of a command line: `-name`, and as its value the argument after it unless that begins with `-`, as in
/// `-command "realm list" -interactive Y`. A lone `-` is no option; names are never abbreviated.
#pragma once

#include <cstdint>
#include <vector>

#include "catalogue/QelHashTable.h"
#include "catalogue/QelString.h"
#include "catalogue/QelStringRef.h"

class QelCmdLine {
  public:
    struct Option {
        std::string_view name;
        char* value;  ///< an argument of main's; null: none
    };

    /// Takes main's arguments, which must outlive the object. Returns 0, or kStatusCommandLine when there is not even a
    /// program name.
    [[nodiscard]] std::uint32_t initialize(int argc, char** argv);
    /// The last component of the path under which the program was started.
    void getCmdName(QelStringRef* name) const;
    /// Returns 0 and the value of the option's first occurrence (empty when it has none), or non-zero when it is
    /// absent. `value` may be null.
    [[nodiscard]] std::uint32_t findOption(const QelString& name, QelStringRef* value) const;
    /// All options, in the order given.
    const std::vector<Option>& options() const { return m_options; }
    /// Declares an option that the program accepts.
    void validated(const QelStringRef& name);
    /// The options present that were not declared, by name with their value; each name once. Throws std::bad_alloc.
    const QelHashTable<QelString, QelString>& invalidOptions();

  private:
    QelStringRef m_cmdName;
    std::vector<Option> m_options;
    std::vector<std::string_view> m_validated;
    QelHashTable<QelString, QelString> m_invalid;
};

/// JSON (RFC 8259) from a peer that is not trusted, and to it.
#pragma once

#include <array>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/value.hpp>
#include <optional>
#include <string>
#include <string_view>

#include "runtime/WipingResource.h"

namespace dsessd {

/// The memory of one request's values, which may be secret: wiped when it goes. No value may outlive it.
class JsonMemory {
  public:
    JsonMemory() = default;
    JsonMemory(const JsonMemory&) = delete;
    JsonMemory& operator=(const JsonMemory&) = delete;
    ~JsonMemory() { explicit_bzero(m_first.data(), m_first.size()); }
    boost::json::storage_ptr storage() { return &m_all; }

  private:
    WipingResource m_wiping;
    std::array<unsigned char, 2048> m_first;
    boost::json::monotonic_resource m_all{m_first.data(), m_first.size(), &m_wiping};
};

/// The deepest nesting that is read.
inline constexpr std::size_t kMaxJsonDepth = 16;

/// Nothing when the text is not one JSON value and no more, nests too deeply, has a field twice in an object, or has a
/// string or field name that holds NUL or is not well-formed UTF-8. Texts of the value end in a NUL.
std::optional<boost::json::value> parseStrictly(std::string_view text, JsonMemory& memory);

/// Appends a text as JSON has it, in quotation marks.
void appendQuoted(std::string& out, std::string_view text);

}  // namespace dsessd

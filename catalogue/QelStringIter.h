/// Walks the pieces of a text between separators, such as the names in "blue,green".
#pragma once

#include <cstddef>
#include <string_view>

#include "catalogue/QelStringRef.h"

class QelString;

class QelStringIter {
  public:
    /// `text` must outlive the iterator and stay unchanged. `separator` is not empty. With `skipEmpty` it passes over
    /// empty pieces. Blanks are part of the pieces.
    QelStringIter(const QelString& text, std::string_view separator, bool skipEmpty);

    /// How many pieces there are in all: exactly as many as next() yields from the start.
    std::size_t count() const noexcept;
    /// Fills `piece` with the next one and returns true, or returns false at the end.
    bool next(QelStringRef& piece) noexcept;

  private:
    std::string_view m_text;
    std::string_view m_separator;
    bool m_skipEmpty;
    bool m_atEnd = false;
    std::string_view m_rest;
};

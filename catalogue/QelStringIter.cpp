#include "catalogue/QelStringIter.h"

#include <cassert>

#include "catalogue/QelString.h"

QelStringIter::QelStringIter(const QelString& text, std::string_view separator, bool skipEmpty)
    : m_text(text.view()), m_separator(separator), m_skipEmpty(skipEmpty), m_rest(m_text) {
    assert(!separator.empty());
}

std::size_t QelStringIter::count() const noexcept {
    QelStringIter walk(*this);
    walk.m_rest = m_text;
    walk.m_atEnd = false;
    std::size_t pieces = 0;
    for (QelStringRef piece; walk.next(piece);) {
        ++pieces;
    }
    return pieces;
}

bool QelStringIter::next(QelStringRef& piece) noexcept {
    while (!m_atEnd) {
        const std::size_t end = m_rest.find(m_separator);
        const std::string_view found = m_rest.substr(0, end);
        if (end == std::string_view::npos) {
            m_atEnd = true;
        } else {
            m_rest.remove_prefix(end + m_separator.size());
        }
        if (!found.empty() || !m_skipEmpty) {
            piece = found;
            return true;
        }
    }
    return false;
}

#include "admin/cli/show/SessionQuery.h"

#include "catalogue/QelFailure.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

SessionQuery::SessionQuery(SessionSelector selector, const char* realm, const char* value)
    // The record's list type serves results too; a query's value is only read.
    : m_values{const_cast<char*>(value), nullptr}, m_query{realm, nullptr, nullptr, {1, m_values}, 0, 0} {
    const bool byUser = selector == SessionSelector::kUser;
    m_query.selector_text1 = qel_msg_get_default_msg(byUser ? kMsgUserSelector1 : kMsgSessionSelector1, nullptr);
    m_query.selector_text2 = qel_msg_get_default_msg(byUser ? kMsgUserSelector2 : kMsgSessionSelector2, nullptr);
    qel_require(m_query.selector_text1 == nullptr || m_query.selector_text2 == nullptr ? kStatusNoCommand : 0);
}

#include "admin/cli/show/SessionQuery.h"

#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"

SessionQuery::SessionQuery(const char* realm, const char* value)
    // The record's list type serves results too; a query's value is only read.
    : m_values{const_cast<char*>(value), nullptr}, m_query{realm, nullptr, nullptr, {1, m_values}, 0, 0} {}

std::uint32_t SessionQuery::select(SessionSelector selector) {
    const bool byUser = selector == SessionSelector::kUser;
    m_query.selector_text1 = qel_msg_get_default_msg(byUser ? kMsgUserSelector1 : kMsgSessionSelector1, nullptr);
    m_query.selector_text2 = qel_msg_get_default_msg(byUser ? kMsgUserSelector2 : kMsgSessionSelector2, nullptr);
    return m_query.selector_text1 != nullptr && m_query.selector_text2 != nullptr ? 0 : kStatusNoCommand;
}

std::uint32_t actOnSessions(SessionSelector selector, SessionOperation operation, void* handle,
                            olm_dsess_admin_sec_info_t const& secInfo, TarnAdminCmdTokens const& tokens) {
    SessionQuery query(tokens[5], tokens[3]);
    if (const std::uint32_t status = query.select(selector); status != 0) {
        return status;
    }
    return operation(handle, &secInfo, query.record());
}

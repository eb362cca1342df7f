#include "admin/cli/commands/TarnAdminLogin.h"

#include <cstdio>
#include <cstring>
#include <utility>

#include "admin/cli/shell/TarnAdminInterrupt.h"
#include "admin/cli/show/ClusterInfo.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_msg.h"
#include "runtime/qel_base64.h"
#include "runtime/qel_hidden.h"
#include "runtime/qel_io.h"
#include "runtime/qel_random.h"
#include "runtime/qel_uuid.h"

constinit const QelString TarnAdminLogin::m_cmdFormat(QelLiteral("login <user> [password]"));
constinit const QelString TarnAdminLogin::m_anonUserName(QelLiteral("anonymous"));

namespace {

void showPasswordPrompt() {
    qel_fprintf(stdout, kMsgPasswordPrompt);
    qel_flush_output();
}

}  // namespace

TarnAdminLogin::TarnAdminLogin() : TarnAdminCmd(m_cmdFormat.data()), m_userName(m_anonUserName) {
    m_secInfo.user_name = m_userName.data();
}

std::uint32_t TarnAdminLogin::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& /*secInfo*/,
                                         TarnAdminCmdTokens const& tokens) {
    QelString userName(tokens[1]);
    QelString password;
    std::uint32_t status = tokens.tokens() == 3 ? password.set(tokens[2]) : promptForPassword(password);
    if (status != 0) {
        return status;
    }
    QelString loginId;
    if (status = makeLoginId(loginId); status != 0) {
        return status;
    }
    olmdsess_admin_client_trace(3, "TarnAdminLogin (%s: %s) - %s\n", userName.data(), password.data(), loginId.data());

    m_userName = std::move(userName);
    m_password = std::move(password);
    m_loginId = std::move(loginId);
    m_secInfo = {m_userName.data(), nullptr, m_loginId.data(), m_password.data()};
    return ClusterInfo().fetch(handle, m_secInfo);
}

std::uint32_t TarnAdminLogin::makeLoginId(QelString& loginId) {
    unsigned char random[64];
    if (!qel_get_random_bytes(random, sizeof(random))) {
        return kStatusNoRandom;
    }
    char encoded[89];
    if (qel_base64_std_encode(random, sizeof(random), encoded, sizeof(encoded)) < 0) {
        return kStatusNoMemory;
    }
    loginId = QelString(encoded);
    std::uint32_t status = 0;
    const qel_uuid_t uuid = qel_uuid_create(&status);
    if (status != 0) {
        return kStatusNoUuid;
    }
    char* text = qel_uuid_to_string(uuid, &status);
    if (text == nullptr) {
        return kStatusNoMemory;
    }
    loginId.append(text);
    qel_uuid_string_free(&text, &status);
    return 0;
}

std::uint32_t TarnAdminLogin::promptForPassword(QelString& password) {
    char line[1024];
    std::string_view read;
    const TarnAdminInterrupt::Running waitsForItsUser(false);
    const QelHidden result = qel_read_hidden(line, read, showPasswordPrompt, TarnAdminInterrupt::came);
    std::fputs("\n", stdout);
    if (result == QelHidden::kInterrupted) {
        TarnAdminInterrupt::note();
        return kStatusInterrupted;
    }
    const std::uint32_t status =
        result == QelHidden::kLine ? password.set(line, QelString::kFromLocale) : kStatusNoPassword;
    explicit_bzero(line, sizeof(line));
    return status;
}

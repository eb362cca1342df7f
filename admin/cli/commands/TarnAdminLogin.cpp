#include "admin/cli/commands/TarnAdminLogin.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <utility>

#include "admin/cli/shell/TarnAdminInterrupt.h"
#include "admin/cli/show/ClusterInfo.h"
#include "catalogue/QelFailure.h"
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

constexpr std::int32_t kUser = 1;
constexpr std::int32_t kPassword = 2;

void showPasswordPrompt() {
    qel_fprintf(stdout, kMsgPasswordPrompt);
    qel_flush_output();
}

/// 64 random bytes in base64, followed by a UUID: no two logins share one. Throws QelFailure, and std::bad_alloc.
QelString makeLoginId() {
    std::array<unsigned char, 64> random;
    qel_require(qel_get_random_bytes(random.data(), random.size()) ? 0 : kStatusNoRandom);
    std::array<char, 89> encoded;
    qel_require(
        qel_base64_std_encode(random.data(), random.size(), encoded.data(), encoded.size()) > 0 ? 0 : kStatusNoMemory);
    QelString loginId(encoded.data());
    const auto uuid = qel_make_uuid();
    qel_require(uuid ? 0 : kStatusNoUuid);
    loginId.append(uuid->data());
    return loginId;
}

}  // namespace

TarnAdminLogin::TarnAdminLogin() : TarnAdminCmd(m_cmdFormat.data()), m_userName(m_anonUserName) {
    m_secInfo.user_name = m_userName.data();
}

std::uint32_t TarnAdminLogin::executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& /*secInfo*/,
                                         TarnAdminCmdTokens const& tokens) {
    return qel_status_of([&] {
        QelString userName(tokens[kUser]);
        QelString password;
        qel_require(tokens[kPassword] != nullptr ? password.set(tokens[kPassword]) : promptForPassword(password));
        QelString loginId = makeLoginId();
        olmdsess_admin_client_trace(3, "TarnAdminLogin (%s: %s) - %s\n", userName.data(), password.data(),
                                    loginId.data());
        m_userName = std::move(userName);
        m_password = std::move(password);
        m_loginId = std::move(loginId);
        m_secInfo = {m_userName.data(), nullptr, m_loginId.data(), m_password.data()};
        const ClusterInfo answer(ServerAccess{handle, m_secInfo});
    });
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

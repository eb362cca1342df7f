/// login: takes on an administrator's identity. Owns the identity (olm_dsess_admin_sec_info_t) that every command
/// sends.
#pragma once

#include "admin/cli/language/TarnAdminCmd.h"
#include "catalogue/QelString.h"

class TarnAdminLogin : public TarnAdminCmd {
  public:
    TarnAdminLogin();

    /// Takes over the new identity and then asks the server whether it is right. The new identity stays even when the
    /// server refuses it. A login that ends before that, such as at the password prompt, keeps the former one.
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

    /// The identity in force: the anonymous user until the first login.
    olm_dsess_admin_sec_info_t const& secInfo() const { return m_secInfo; }

  private:
    /// Reads a password from standard input, without echo on a terminal.
    [[nodiscard]] static std::uint32_t promptForPassword(QelString& password);

    static const QelString m_cmdFormat;
    static const QelString m_anonUserName;

    QelString m_userName;
    QelString m_password;
    QelString m_loginId;
    olm_dsess_admin_sec_info_t m_secInfo{};
};

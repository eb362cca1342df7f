/// The thirteen commands that keep nothing between two lines. Each source file is named after its class.
#pragma once

#include "admin/cli/language/TarnAdminCmd.h"
#include "catalogue/QelString.h"

/// replica set list: the replica sets of every realm, or of one.
class TarnAdminReplicaSetList : public TarnAdminCmd {
  public:
    TarnAdminReplicaSetList() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// replica set show: the members of one replica set and when each was last heard from.
class TarnAdminReplicaSetShow : public TarnAdminCmd {
  public:
    TarnAdminReplicaSetShow() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// realm list: the names of all realms.
class TarnAdminRealmList : public TarnAdminCmd {
  public:
    TarnAdminRealmList() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// realm show: the replica sets of one realm.
class TarnAdminRealmShow : public TarnAdminCmd {
  public:
    TarnAdminRealmShow() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// key show: the cluster's key.
class TarnAdminKeyShow : public TarnAdminCmd {
  public:
    TarnAdminKeyShow() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// key change: makes the cluster generate a new key, at once, and shows it.
class TarnAdminKeyChange : public TarnAdminCmd {
  public:
    TarnAdminKeyChange() : TarnAdminCmd(m_cmdFormat.data(), Effect::kChanges) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// session list: the sessions of a realm whose user matches a pattern, at most so many (0: all).
class TarnAdminSessList : public TarnAdminCmd {
  public:
    TarnAdminSessList() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// session terminate session: ends one session.
class TarnAdminSessTerminate : public TarnAdminCmd {
  public:
    TarnAdminSessTerminate() : TarnAdminCmd(m_cmdFormat.data(), Effect::kChanges) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// session terminate all_sessions: ends every session of a user.
class TarnAdminSessTerminateAll : public TarnAdminCmd {
  public:
    TarnAdminSessTerminateAll() : TarnAdminCmd(m_cmdFormat.data(), Effect::kChanges) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// session refresh session: makes one session fresh.
class TarnAdminSessRefresh : public TarnAdminCmd {
  public:
    TarnAdminSessRefresh() : TarnAdminCmd(m_cmdFormat.data(), Effect::kChanges) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// session refresh all_sessions: makes every session of a user fresh.
class TarnAdminSessRefreshAll : public TarnAdminCmd {
  public:
    TarnAdminSessRefreshAll() : TarnAdminCmd(m_cmdFormat.data(), Effect::kChanges) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// trace set: sets the server's trace level; the server decides which levels are valid.
class TarnAdminTraceSet : public TarnAdminCmd {
  public:
    TarnAdminTraceSet() : TarnAdminCmd(m_cmdFormat.data(), Effect::kChanges) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

/// trace get: shows the server's trace level.
class TarnAdminTraceGet : public TarnAdminCmd {
  public:
    TarnAdminTraceGet() : TarnAdminCmd(m_cmdFormat.data()) {}
    std::uint32_t executeCmd(void* const& handle, olm_dsess_admin_sec_info_t const& secInfo,
                             TarnAdminCmdTokens const& tokens) override;

  private:
    static const QelString m_cmdFormat;
};

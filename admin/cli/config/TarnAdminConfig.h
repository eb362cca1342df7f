/// The client configuration: instances with their server URLs, the timeout, the SSL settings.
#pragma once

#include <cstdint>
#include <string>

#include "admin/cli/config/qel_stanza.h"
#include "admin/client-interface/olm_dsess_admin.h"
#include "catalogue/QelHashTable.h"
#include "catalogue/QelString.h"

class TarnAdminConfig {
  public:
    /// The URL list of one instance, one URL per location. Owns its strings.
    struct ServerURLs : olm_dsess_admin_mv_string_t {
        ServerURLs() : olm_dsess_admin_mv_string_t{0, nullptr} {}
        ServerURLs(const ServerURLs&) = delete;
        ServerURLs& operator=(const ServerURLs&) = delete;
        ~ServerURLs();
    };
    using InstanceTable = QelHashTable<QelString, ServerURLs>;

    TarnAdminConfig() = default;
    TarnAdminConfig(const TarnAdminConfig&) = delete;
    TarnAdminConfig& operator=(const TarnAdminConfig&) = delete;
    ~TarnAdminConfig();

    /// Loads the file; `proxy` selects the service path of every URL. Returns 0 or the status of the first failure, of
    /// which the service log has the particulars. What was loaded before a failure stays until shutdown.
    [[nodiscard]] std::uint32_t initialize(const char* path, bool proxy);
    /// Releases everything that was loaded. Always 0.
    std::uint32_t shutdown();

    /// The URLs of an instance, null standing for the default one; null when it is not configured. They stay the
    /// configuration's.
    const ServerURLs* serverURLs(const char* instance) const;
    /// The first instance that the file names.
    const QelString& defaultInstance() const { return m_defaultInstance; }
    const InstanceTable& instanceTable() const { return m_instanceTable; }
    /// Seconds, as the client library takes it; -1 before a successful initialize.
    std::int32_t timeout() const { return m_timeout; }
    const olm_dsess_admin_ssl_info_t& sslInfo() const { return m_sslInfo; }

  private:
    [[nodiscard]] std::uint32_t loadEntries(qelStanzaFile* file, bool proxy);
    [[nodiscard]] std::uint32_t loadInstances(const QelString& locations, const QelString& instances,
                                              const QelString& scheme, const char* suffix);
    [[nodiscard]] std::uint32_t loadTimeout(qelStanzaFile* file);
    [[nodiscard]] std::uint32_t loadSslInfo(qelStanzaFile* file);
    void loadFipsMode(qelStanzaFile* file);
    /// Takes notice of SSL entries in a file that does not switch SSL on.
    void watchUnusedSsl(qelStanzaFile* file);
    /// The values of all entries of one name, joined by commas. An entry that is absent or empty gives
    /// kStatusEntryMissing, logged unless it is optional.
    [[nodiscard]] static std::uint32_t loadData(qelStanzaFile* file, const QelString& entry, bool optional,
                                                QelString& value);
    /// Fills a list from comma-separated text, each piece followed by the suffix. Null: no suffix.
    [[nodiscard]] static std::uint32_t convertToMV(const QelString& list, const char* suffix,
                                                   olm_dsess_admin_mv_string_t& record);

    static const QelString m_tarnStanzaName;
    static const QelString m_locationEntryName;
    static const QelString m_instancesEntryName;
    static const QelString m_timeoutEntryName;
    static const QelString m_serverDNsEntryName;
    static const QelString m_fipsEnabledEntryName;
    static const QelString m_keyFileEntryName;
    static const QelString m_keyFileStashEntryName;
    static const QelString m_keyFileLabelEntryName;

    InstanceTable m_instanceTable;
    std::int32_t m_timeout = -1;
    olm_dsess_admin_ssl_info_t m_sslInfo{};
    QelString m_defaultInstance;
};

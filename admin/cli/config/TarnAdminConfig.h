/// The client configuration: server instances with their URLs, the timeout, the SSL settings.
///
/// It is read once from the stanza [tarn] of a stanza file (qel_stanza.h), such as
///
///     [tarn]
///     location = node1:9080,node2:9080
///     instances = blue,green
///     timeout = 10
///
/// which gives the instance blue the URLs http://node1:9080/blue/services/DSessAdminProxy and the same with node2.
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

    /// Loads the file. `proxy` selects the service path of every URL. Returns 0 or the status of the first failure; the
    /// service log has the particulars. What was loaded before a failure stays until shutdown.
    [[nodiscard]] std::uint32_t initialize(const char* path, bool proxy);
    /// Releases everything that was loaded. Always 0.
    std::uint32_t shutdown();

    /// The URLs of an instance, or of the default one if the name is null. Null when it is not configured. The
    /// configuration keeps them.
    const ServerURLs* serverURLs(const char* instance) const;
    /// The first instance that the file names.
    const QelString& defaultInstance() const { return m_defaultInstance; }
    const InstanceTable& instanceTable() const { return m_instanceTable; }
    /// Seconds, as the client library takes it; -1 before a successful initialize.
    std::int32_t timeout() const { return m_timeout; }
    const olm_dsess_admin_ssl_info_t& sslInfo() const { return m_sslInfo; }

  private:
    // These throw QelFailure; the service log then has the particulars.
    void loadEntries(qelStanzaFile* file, bool proxy);
    void loadInstances(const QelString& locations, const QelString& instances, const QelString& scheme,
                       const char* suffix);
    void loadTimeout(qelStanzaFile* file);
    void loadSslInfo(qelStanzaFile* file);
    void loadFipsMode(qelStanzaFile* file);
    /// Notes SSL entries in a file that does not switch SSL on.
    void noticeUnusedSsl(qelStanzaFile* file);
    /// The value of an entry that may not be absent (loadData). Throws QelFailure.
    static QelString required(qelStanzaFile* file, const QelString& entry);
    /// Joins the values of all entries of one name by commas. Returns kStatusEntryMissing for an entry that is absent
    /// or empty, and logs that unless the entry is optional.
    [[nodiscard]] static std::uint32_t loadData(qelStanzaFile* file, const QelString& entry, bool optional,
                                                QelString& value);
    /// Fills a list from comma-separated text. Each piece gets the suffix, unless that is null.
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

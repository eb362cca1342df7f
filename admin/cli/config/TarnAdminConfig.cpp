#include "admin/cli/config/TarnAdminConfig.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "catalogue/QelFailure.h"
#include "catalogue/QelStringIter.h"
#include "catalogue/qel_messages.h"
#include "catalogue/qel_strtol.h"
#include "catalogue/qel_svc.h"
#include "protocol/protocol.h"
#include "runtime/qel_ascii.h"

constinit const QelString TarnAdminConfig::m_tarnStanzaName(QelLiteral("tarn"));
constinit const QelString TarnAdminConfig::m_locationEntryName(QelLiteral("location"));
constinit const QelString TarnAdminConfig::m_instancesEntryName(QelLiteral("instances"));
constinit const QelString TarnAdminConfig::m_timeoutEntryName(QelLiteral("timeout"));
constinit const QelString TarnAdminConfig::m_serverDNsEntryName(QelLiteral("server-dns"));
constinit const QelString TarnAdminConfig::m_fipsEnabledEntryName(QelLiteral("ssl-fips-enabled"));
constinit const QelString TarnAdminConfig::m_keyFileEntryName(QelLiteral("ssl-keyfile"));
constinit const QelString TarnAdminConfig::m_keyFileStashEntryName(QelLiteral("ssl-keyfile-stash"));
constinit const QelString TarnAdminConfig::m_keyFileLabelEntryName(QelLiteral("ssl-keyfile-label"));

namespace {

constinit const QelString httpsScheme(QelLiteral("https://"));
constinit const QelString httpScheme(QelLiteral("http://"));

constexpr char kProxySuffix[] = "Proxy";
constexpr char kSeparator[] = ",";
constexpr std::uint32_t kInstanceBuckets = 29;

struct StanzaFileCloser {
    void operator()(qelStanzaFile* file) const { qelStzFileClose(file); }
};
using StanzaFile = std::unique_ptr<qelStanzaFile, StanzaFileCloser>;

void freeList(olm_dsess_admin_mv_string_t& list) {
    if (list.values == nullptr) {
        return;
    }
    for (std::int32_t i = 0; i < list.count; ++i) {
        std::free(list.values[i]);
    }
    std::free(static_cast<void*>(list.values));
    list = {0, nullptr};
}

void freeText(char*& text) {
    std::free(text);
    text = nullptr;
}

/// Tells the service log that memory ran out, and returns kStatusNoMemory.
std::uint32_t noMemory(int line) {
    qel_svc_printf_withfile(QelSvcHandle::kClient, __FILE__, line, "", kSvcGeneral, kSvcError, kStatusNoMemory);
    return kStatusNoMemory;
}

/// A copy for a record of the library's, released with free.
char* copyOf(const QelString& text) {
    char* copy = strdup(text.data());
    qel_require(copy != nullptr ? 0 : noMemory(__LINE__));
    return copy;
}

/// The URLs of one instance, without the suffix, separated by commas.
QelString joinURLs(const QelString& locations, const QelString& scheme, const QelStringRef& instance) {
    QelString urls;
    QelStringIter iter(locations, kSeparator, true);
    for (QelStringRef location; iter.next(location);) {
        if (!urls.empty()) {
            urls.append(kSeparator);
        }
        urls.append(scheme.view());
        urls.append(location.view());
        urls.append("/");
        urls.append(instance.view());
        urls.append(protocol::kServicePath);
    }
    return urls;
}

/// Writes to the service log what is strange in the configuration but no failure.
void writeNotice(int line, std::uint32_t message, const char* insert) {
    qel_svc_printf_withfile(QelSvcHandle::kClient, __FILE__, line, "%s", kSvcGeneral, kSvcNotice, message, insert);
}

/// Whether a value of ssl-fips-enabled is meant to switch FIPS mode off: none, or one that begins like no, false or
/// off. What neither says so nor switches it on is a mistake.
bool saysNo(std::string_view value) {
    return value.empty() || qel_ascii_equal(value.substr(0, 1), "n") || qel_ascii_equal(value.substr(0, 1), "f") ||
           qel_ascii_equal(value.substr(0, 2), "of");
}

}  // namespace

TarnAdminConfig::ServerURLs::~ServerURLs() {
    freeList(*this);
}

TarnAdminConfig::~TarnAdminConfig() {
    shutdown();
}

std::uint32_t TarnAdminConfig::initialize(const char* path, bool proxy) {
    shutdown();
    std::uint32_t status = 0;
    const StanzaFile file(qelStzFileOpen(path, &status));
    return status != 0 ? status : qel_status_of([&] { loadEntries(file.get(), proxy); });
}

std::uint32_t TarnAdminConfig::shutdown() {
    m_instanceTable.clear();
    freeList(m_sslInfo.server_dns);
    freeText(m_sslInfo.keyfile);
    freeText(m_sslInfo.keyfile_stash);
    freeText(m_sslInfo.keyfile_label);
    return 0;
}

// The order of the entries decides which error is reported when several are wrong.
void TarnAdminConfig::loadEntries(qelStanzaFile* file, bool proxy) {
    QelString keyFile;
    const bool ssl = loadData(file, m_keyFileEntryName, true, keyFile) == 0;
    const QelString locations = required(file, m_locationEntryName);
    const QelString instances = required(file, m_instancesEntryName);
    loadInstances(locations, instances, ssl ? httpsScheme : httpScheme, proxy ? kProxySuffix : nullptr);
    loadTimeout(file);
    if (ssl) {
        loadSslInfo(file);
    } else {
        noticeUnusedSsl(file);
    }
}

void TarnAdminConfig::loadInstances(const QelString& locations, const QelString& instances, const QelString& scheme,
                                    const char* suffix) {
    m_instanceTable.setUp(kInstanceBuckets);
    QelStringIter iter(instances, kSeparator, true);
    for (QelStringRef name; iter.next(name);) {
        if (m_defaultInstance.empty()) {
            m_defaultInstance = QelString(name);
        }
        auto urls = std::make_unique<ServerURLs>();
        qel_require(convertToMV(joinURLs(locations, scheme, name), suffix, *urls));
        m_instanceTable.insert(QelString(name), std::move(urls));
    }
}

void TarnAdminConfig::loadTimeout(qelStanzaFile* file) {
    const QelString value = required(file, m_timeoutEntryName);
    if (qel_strtol(value.data(), 10, &m_timeout) != 0 || m_timeout < 0) {
        qel_svc_printf_withfile(QelSvcHandle::kDeployment, __FILE__, __LINE__, "%s%s%s", kSvcConfiguration,
                                kSvcErrorExit, kMsgInvalidNumber, value.data(), m_timeoutEntryName.data(),
                                m_timeoutEntryName.data());
        throw QelFailure(kStatusInvalidNumber);
    }
}

void TarnAdminConfig::loadSslInfo(qelStanzaFile* file) {
    QelString value;
    if (loadData(file, m_serverDNsEntryName, true, value) == 0) {
        qel_require(convertToMV(value, nullptr, m_sslInfo.server_dns));
    }
    loadFipsMode(file);
    m_sslInfo.keyfile = copyOf(required(file, m_keyFileEntryName));
    m_sslInfo.keyfile_stash = copyOf(required(file, m_keyFileStashEntryName));
    if (loadData(file, m_keyFileLabelEntryName, true, value) == 0) {
        m_sslInfo.keyfile_label = copyOf(value);
    }
}

void TarnAdminConfig::loadFipsMode(qelStanzaFile* file) {
    QelString value;
    m_sslInfo.fips_enabled = 0;
    if (loadData(file, m_fipsEnabledEntryName, true, value) != 0) {
        return;
    }
    const char first = qel_ascii_upper(value.data()[0]);
    m_sslInfo.fips_enabled = first == 'Y' || first == 'T';
    if (m_sslInfo.fips_enabled == 0 && !saysNo(value.view())) {
        writeNotice(__LINE__, kMsgFipsNotAsked, value.data());
    }
}

void TarnAdminConfig::noticeUnusedSsl(qelStanzaFile* file) {
    const QelString* const names[] = {&m_serverDNsEntryName, &m_keyFileStashEntryName, &m_keyFileLabelEntryName};
    for (std::uint32_t status = qelStzMoveStanza(file, m_tarnStanzaName.data());
         status == 0 && qelStzEntryName(file) != nullptr; status = qelStzMoveNextEntry(file)) {
        const std::string_view name = qelStzEntryName(file);
        const std::string_view value = qelStzEntryValue(file);
        const bool isSsl =
            std::any_of(std::begin(names), std::end(names), [&](const auto* one) { return one->view() == name; });
        if (name == m_keyFileEntryName.view() || (isSsl && !value.empty()) ||
            (name == m_fipsEnabledEntryName.view() && !saysNo(value))) {
            writeNotice(__LINE__, kMsgSslNotUsed, qelStzFileName(file));
            return;
        }
    }
}

QelString TarnAdminConfig::required(qelStanzaFile* file, const QelString& entry) {
    QelString value;
    qel_require(loadData(file, entry, false, value));
    return value;
}

std::uint32_t TarnAdminConfig::loadData(qelStanzaFile* file, const QelString& entry, bool optional, QelString& value) {
    value.clear();
    std::uint32_t status = qelStzMoveStanza(file, m_tarnStanzaName.data());
    while (status == 0 && qelStzEntryName(file) != nullptr) {
        if (entry.view() == qelStzEntryName(file)) {
            if (!value.empty()) {
                value.append(kSeparator);
            }
            value.append(qelStzEntryValue(file));
        }
        status = qelStzMoveNextEntry(file);
    }
    if (!value.empty()) {
        return 0;
    }
    if (!optional) {
        qel_svc_printf_withfile(QelSvcHandle::kClient, __FILE__, __LINE__, "%s%s%s", kSvcGeneral, kSvcError,
                                kMsgEntryMissing, m_tarnStanzaName.data(), qelStzFileName(file), entry.data());
    }
    return kStatusEntryMissing;
}

std::uint32_t TarnAdminConfig::convertToMV(const QelString& list, const char* suffix,
                                           olm_dsess_admin_mv_string_t& record) {
    QelStringIter iter(list, kSeparator, true);
    record.count = static_cast<std::int32_t>(iter.count());
    record.values = nullptr;
    if (record.count == 0) {
        return 0;
    }
    record.values = static_cast<char**>(std::calloc(iter.count(), sizeof(char*)));
    if (record.values == nullptr) {
        record.count = 0;
        return noMemory(__LINE__);
    }
    const std::string_view tail = suffix != nullptr ? suffix : "";
    char** next = record.values;
    for (QelStringRef piece; iter.next(piece); ++next) {
        *next = static_cast<char*>(std::malloc(piece.length() + tail.length() + 1));
        if (*next == nullptr) {
            return noMemory(__LINE__);
        }
        char* end = *next;
        end += piece.view().copy(end, piece.length());
        end += tail.copy(end, tail.length());
        *end = '\0';
    }
    return 0;
}

const TarnAdminConfig::ServerURLs* TarnAdminConfig::serverURLs(const char* instance) const {
    return m_instanceTable.find(instance != nullptr ? QelString(instance) : m_defaultInstance);
}

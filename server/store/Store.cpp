#include "server/store/Store.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <chrono>
#include <iostream>
#include <limits>
#include <utility>

#include "runtime/QelTimeText.h"
#include "runtime/qel_random.h"
#include "runtime/qel_utf8.h"
#include "runtime/qel_uuid.h"
#include "server/store/StoreEngines.h"

namespace dsessd {

namespace {

// Each holds three descriptors and a cache; more are seldom busy at once.
constexpr std::size_t kIdleStores = 25;
constexpr std::chrono::minutes kKeepIdle{1};
constexpr std::chrono::seconds kWaitAtMost{10};
constexpr std::chrono::milliseconds kBetweenQuestions{10};

void toStandardError(Store::Event, const std::string& line) {
    std::cerr << line + '\n';
}

}  // namespace

Seconds presentTime() {
    using namespace std::chrono;
    const auto now = duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<Seconds>(std::min<std::int64_t>(now, std::numeric_limits<Seconds>::max()));
}

std::string_view sought(std::string_view name) {
    return qel_utf8_is_text(name) ? name : std::string_view();
}

std::string newKeyLabel(Seconds now) {
    std::array<unsigned char, 8> random{};
    if (!qel_get_random_bytes(random.data(), random.size())) {
        throw Failure("no random bytes for a key's label");
    }
    std::string label = QelTimeText(now, "key-%Y-%m-%d-").data();
    for (const unsigned char byte : random) {
        label += "0123456789abcdef"[byte >> 4];
        label += "0123456789abcdef"[byte & 15];
    }
    return label;
}

std::string newUuid() {
    const auto uuid = qel_make_uuid();
    if (!uuid) {
        throw Failure("no random bytes for a UUID");
    }
    return uuid->data();
}

void Store::doLocally(const std::function<std::string()>& act) {
    once({std::string(kLocalActs.front()) + newUuid(), "", ""}, act);
}

void checkSameChange(const ChangeRecord& change, std::string_view user, std::string_view digest) {
    if (user != change.user || digest != change.digest) {
        throw Failure(Reason::kOtherChange, "The changeId names another change.");
    }
}

void SessionBatches::add(std::int64_t realm, std::string_view id, std::string_view user, Seconds time) {
    m_sessions.push_back({realm, std::string(id), std::string(user), time});
    if (m_sessions.size() == kSessionsAtOnce) {
        flush();
    }
}

void SessionBatches::flush() {
    m_taker.addSessions(m_sessions);
    m_sessions.clear();
}

void failForVersion(const std::string& store, std::int64_t found, int known) {
    throw Failure(
        store + " has schema version " + std::to_string(found) +
        (found > known
             ? " of a newer dsessd, which is needed to use it; this one knows version " + std::to_string(known)
             : " of an older dsessd; 'dsessd upgrade' raises it to version " + std::to_string(known)));
}

void failForOtherTools(const std::string& store) {
    throw Failure(store + " is backed up and restored by PostgreSQL's own pg_dump and pg_restore; dsessd(8) shows how");
}

std::int64_t ChangeAges::oldUpTo(std::int64_t newest) {
    const auto now = std::chrono::steady_clock::now();
    if (!m_seen || now - m_seenAt > kKeepChanges) {
        m_old = std::exchange(m_seen, newest).value_or(m_old);
        m_seenAt = now;
    }
    return m_old;
}

std::unique_ptr<Store> Store::open(const std::string& data, IfMissing ifMissing, Say say) {
    if (!isDatabase(data)) {
        return openSqliteStore(data, ifMissing);
    }
    return openPostgresStore(data, ifMissing, say ? std::move(say) : toStandardError);
}

bool Store::restore(const std::string& data, const std::string& file) {
    if (isDatabase(data)) {
        failForOtherTools(nameOfPostgres(data));
    }
    return restoreSqliteStore(data, file);
}

StoreVersions Store::upgrade(const std::string& data) {
    return isDatabase(data) ? upgradePostgresStore(data, toStandardError) : upgradeSqliteStore(data);
}

bool Store::isDatabase(const std::string& data) {
    return data.starts_with("postgresql://") || data.starts_with("postgres://");
}

std::string Store::describe(const std::string& data) {
    return isDatabase(data) ? nameOfPostgres(data) : data;
}

StorePool::StorePool(const std::string& data, Store::Say say, std::size_t most)
    : m_isEmbedded(!Store::isDatabase(data)),
      m_most(most),
      m_first(Store::open(data, Store::IfMissing::kFail, std::move(say))) {
    m_idle.reserve(kIdleStores);  // giving one back must not fail
    m_first->rest();
}

StorePool::Lease StorePool::take(std::function<bool()> impatient) {
    std::unique_ptr<Store> store = takeIdle(impatient);
    try {
        if (store == nullptr) {
            store = m_first->another();
        }
        store->endWhen(std::move(impatient));
        store->beReliable();
    } catch (...) {
        giveBack(std::unique_ptr<Store>());
        throw;
    }
    return Lease(store.release(), Returner{this});
}

/// Counts one as used. Null: there is none yet.
std::unique_ptr<Store> StorePool::takeIdle(const std::function<bool()>& impatient) {
    const auto end = std::chrono::steady_clock::now() + kWaitAtMost;
    MutexLock lock(m_mutex);
    while (!lock.waitFor(m_returned, kBetweenQuestions, [this]() REQUIRES(m_mutex) { return m_used < m_most; })) {
        if ((impatient && impatient()) || std::chrono::steady_clock::now() > end) {
            throw Failure(Reason::kBusy, "all connections to the store are in use");
        }
    }
    ++m_used;
    if (m_idle.empty()) {
        return nullptr;
    }
    std::unique_ptr<Store> store = std::move(m_idle.back().store);
    m_idle.pop_back();
    return store;
}

bool StorePool::isEmbedded() const {
    return m_isEmbedded;
}

void StorePool::giveBack(Store* store) {
    assert(store != nullptr);
    store->endWhen({});
    giveBack(std::unique_ptr<Store>(store));
}

/// Null: it could not be used.
void StorePool::giveBack(std::unique_ptr<Store> store) {
    std::unique_ptr<Store> unused;  // goes without the lock, as the other does
    const auto now = std::chrono::steady_clock::now();
    {
        const MutexLock lock(m_mutex);
        --m_used;
        if (store != nullptr && store->isSound() && m_idle.size() < kIdleStores) {
            m_idle.push_back({std::move(store), now});
        }
        if (m_idle.size() > 1 && now - m_idle.front().since > kKeepIdle) {
            unused = std::move(m_idle.front().store);
            m_idle.erase(m_idle.begin());
        }
    }
    m_returned.notify_one();
}

}  // namespace dsessd

#include "server/Store.h"

#include <algorithm>
#include <chrono>
#include <limits>

namespace dsessd {

namespace {

// Each holds three descriptors and a cache; more are seldom busy at once.
constexpr std::size_t kIdleStores = 8;

}  // namespace

const char* nameOf(Role role) {
    return role == Role::kChange ? "change" : "read";
}

Seconds presentTime() {
    using namespace std::chrono;
    const auto now = duration_cast<seconds>(system_clock::now().time_since_epoch()).count();
    return static_cast<Seconds>(std::min<std::int64_t>(now, std::numeric_limits<Seconds>::max()));
}

StorePool::Lease StorePool::take() {
    {
        const std::lock_guard lock(m_mutex);
        if (!m_idle.empty()) {
            Store* store = m_idle.back().release();
            m_idle.pop_back();
            return Lease(store, Returner{this});
        }
    }
    return Lease(Store::open(m_path, Store::IfMissing::kFail).release(), Returner{this});
}

void StorePool::giveBack(Store* store) {
    std::unique_ptr<Store> owned(store);
    const std::lock_guard lock(m_mutex);
    if (m_idle.size() < kIdleStores) {
        m_idle.push_back(std::move(owned));
    }
}

}  // namespace dsessd

/// A hash table with chains, which owns its keys and values. A key may be inserted more than once: `find` gives the
/// value inserted last, and a walk gives all. Key has hash(), which returns 32 bits, and compare(), which returns 0 for
/// equal.
#pragma once

#include <cassert>
#include <cstdint>
#include <forward_list>
#include <memory>
#include <utility>
#include <vector>

template <class Key, class Value>
class QelHashTable {
  public:
    /// Empties the table and gives it buckets, at least one. Throws std::bad_alloc.
    void setUp(std::uint32_t bucketCount) {
        assert(bucketCount > 0);
        clear();
        m_buckets.resize(bucketCount);
    }

    /// Adds an entry in front of its bucket's chain. The table has buckets. Throws std::bad_alloc.
    void insert(Key key, std::unique_ptr<Value> value) {
        Chain& chain = m_buckets[bucketOf(key.hash(), bucketCount())];
        chain.emplace_front(std::move(key), std::move(value));
        ++m_entryCount;
    }

    /// The value that was inserted last with an equal key, or null. The table keeps it.
    const Value* find(const Key& key) const noexcept {
        if (m_buckets.empty()) {
            return nullptr;
        }
        for (const auto& [one, value] : m_buckets[bucketOf(key.hash(), bucketCount())]) {
            if (one.compare(key) == 0) {
                return value.get();
            }
        }
        return nullptr;
    }

    /// Calls `visit` with every key: buckets in ascending order, and each from the latest insertion to the first.
    template <class Visit>
    void forEachKey(Visit visit) const {
        for (const Chain& chain : m_buckets) {
            for (const auto& entry : chain) {
                visit(entry.first);
            }
        }
    }

    /// Deletes all entries and the buckets.
    void clear() noexcept {
        m_buckets.clear();
        m_entryCount = 0;
    }

    std::uint32_t size() const noexcept { return m_entryCount; }

    /// The bucket of a hash. In a table with few buckets the upper bytes of the hash count too.
    static constexpr std::uint32_t bucketOf(std::uint32_t hash, std::uint32_t bucketCount) noexcept {
        if (bucketCount <= 0xFF) {
            hash ^= (hash >> 24) ^ ((hash >> 16) & 0xFF) ^ ((hash >> 8) & 0xFF);
        } else if (bucketCount <= 0xFFFF) {
            hash ^= hash >> 16;
        } else if (bucketCount <= 0xFFFFFF) {
            hash ^= (hash >> 24) << 4;
        }
        return hash % bucketCount;
    }

  private:
    using Chain = std::forward_list<std::pair<Key, std::unique_ptr<Value>>>;

    std::uint32_t bucketCount() const noexcept { return static_cast<std::uint32_t>(m_buckets.size()); }

    std::vector<Chain> m_buckets;
    std::uint32_t m_entryCount = 0;
};

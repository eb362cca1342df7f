/// A chained hash table of keys and values on the heap. Keys that compare equal may occur more than once: the one
/// inserted last is found, and all are walked. Key needs hash(), returning 32 bits, and compare(), 0 for equal.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>

#include "catalogue/qel_messages.h"

template <class Key, class Value>
class QelHashTable {
    struct Node {
        Node* next;
        Key* key;
        Value* value;
    };

  public:
    /// One entry, as a walk yields it.
    struct Entry {
        const Key& key;
        const Value& value;
    };

    /// Walks buckets in ascending order and each from the latest insertion to the first.
    class Iterator {
      public:
        Entry operator*() const { return {*m_node->key, *m_node->value}; }
        Iterator& operator++() {
            m_node = m_node->next;
            settle();
            return *this;
        }
        bool operator!=(const Iterator& other) const { return m_node != other.m_node; }

      private:
        friend class QelHashTable;
        Iterator(const QelHashTable& table, std::uint32_t bucket, Node* node)
            : m_table(table), m_bucket(bucket), m_node(node) {
            settle();
        }
        void settle() {
            while (m_node == nullptr && m_bucket < m_table.m_bucketCount) {
                m_node = m_table.m_buckets[m_bucket++];
            }
        }

        const QelHashTable& m_table;
        std::uint32_t m_bucket;  // the next one to look at
        Node* m_node;
    };

    /// No buckets, nothing owned.
    QelHashTable() = default;
    QelHashTable(const QelHashTable&) = delete;
    QelHashTable& operator=(const QelHashTable&) = delete;
    virtual ~QelHashTable() { clear(); }

    /// Empties the table and gives it buckets; from now on it owns keys and values. Returns 0 or kStatusNoMemory, which
    /// leaves it without buckets.
    [[nodiscard]] std::uint32_t setUp(std::uint32_t bucketCount) noexcept {
        clear();
        m_owns = true;
        m_buckets = static_cast<Node**>(std::calloc(bucketCount, sizeof(void*)));
        if (m_buckets == nullptr) {
            return kStatusNoMemory;
        }
        m_bucketCount = bucketCount;
        return 0;
    }

    /// Adds an entry in front of its bucket's chain. Returns 0 or, with the arguments released, kStatusNoMemory (also
    /// for a table without buckets).
    [[nodiscard]] std::uint32_t insert(std::unique_ptr<Key> key, std::unique_ptr<Value> value) noexcept {
        if (m_bucketCount == 0) {
            return kStatusNoMemory;
        }
        Node** head = &m_buckets[bucketOf(key->hash(), m_bucketCount)];
        Node* node = new (std::nothrow) Node{*head, nullptr, nullptr};
        if (node == nullptr) {
            return kStatusNoMemory;
        }
        node->key = key.release();
        node->value = value.release();
        *head = node;
        ++m_entryCount;
        return 0;
    }

    /// The value of the equal key inserted last, or null. It stays the table's.
    const Value* find(const Key& key) const noexcept {
        if (m_bucketCount == 0) {
            return nullptr;
        }
        for (Node* node = m_buckets[bucketOf(key.hash(), m_bucketCount)]; node != nullptr; node = node->next) {
            if (node->key->compare(key) == 0) {
                return node->value;
            }
        }
        return nullptr;
    }

    /// Removes every entry, deleting keys and values if they are owned, and the buckets.
    void clear() noexcept {
        for (std::uint32_t bucket = 0; bucket < m_bucketCount; ++bucket) {
            for (Node* node = m_buckets[bucket]; node != nullptr;) {
                Node* next = node->next;
                if (m_owns) {
                    delete node->key;
                    delete node->value;
                }
                delete node;
                node = next;
            }
        }
        std::free(m_buckets);
        m_buckets = nullptr;
        m_bucketCount = 0;
        m_entryCount = 0;
    }

    std::uint32_t size() const noexcept { return m_entryCount; }
    Iterator begin() const noexcept { return {*this, 0, nullptr}; }
    Iterator end() const noexcept { return {*this, m_bucketCount, nullptr}; }

    /// The bucket of a hash: small tables fold the upper bytes into those that the remainder looks at.
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
    Node** m_buckets = nullptr;
    std::uint32_t m_bucketCount = 0;
    bool m_owns = false;
    std::uint32_t m_entryCount = 0;
};

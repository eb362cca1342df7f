#include "runtime/QelHashTable.h"

#include <gtest/gtest.h>

#include <string>

#include "Support.h"

namespace {

/// A key whose hash is its number; `alive` counts the objects there are.
struct Number {
    explicit Number(std::uint32_t number) : value(number) { ++alive; }
    Number(const Number&) = delete;
    Number& operator=(const Number&) = delete;
    ~Number() { --alive; }
    std::uint32_t hash() const { return value; }
    int compare(const Number& other) const { return value == other.value ? 0 : 1; }

    std::uint32_t value;
    static inline int alive = 0;
};

using Table = QelHashTable<Number, Number>;

std::uint32_t insert(Table& table, std::uint32_t key, std::uint32_t value) {
    return table.insert(std::make_unique<Number>(key), std::make_unique<Number>(value));
}

std::string walk(const Table& table) {
    std::string seen;
    for (const auto& [key, value] : table) {
        seen += std::to_string(key.value) + "=" + std::to_string(value.value) + " ";
    }
    return seen;
}

TEST(QelHashTable, WalksBucketsInOrderAndFindsTheLatestOfEqualKeys) {
    Table table;
    ASSERT_EQ(table.setUp(5), 0U);
    for (const std::uint32_t key : {7U, 1U, 2U, 0U, 2U, 12U}) {
        EXPECT_EQ(insert(table, key, table.size()), 0U);
    }
    EXPECT_EQ(walk(table), "0=3 1=1 12=5 2=4 2=2 7=0 ");
    EXPECT_EQ(table.size(), 6U);
    EXPECT_EQ(table.find(Number(2))->value, 4U);
    EXPECT_EQ(table.find(Number(17)), nullptr);
}

TEST(QelHashTable, OwnsWhatItHoldsAndReleasesWhatItCannotHold) {
    {
        Table table;
        EXPECT_EQ(insert(table, 1, 1), kStatusNoMemory);
        EXPECT_EQ(table.find(Number(1)), nullptr);
        EXPECT_EQ(walk(table), "");
        ASSERT_EQ(table.setUp(3), 0U);
        auto key = std::make_unique<Number>(4);
        {
            const FailingNew noMemory;
            EXPECT_EQ(table.insert(std::move(key), nullptr), kStatusNoMemory);
        }
        EXPECT_EQ(Number::alive, 0);

        EXPECT_EQ(insert(table, 1, 1), 0U);
        EXPECT_EQ(insert(table, 1, 2), 0U);
        EXPECT_EQ(Number::alive, 4);
        table.clear();
        EXPECT_EQ(Number::alive, 0);
        EXPECT_EQ(table.size(), 0U);
        ASSERT_EQ(table.setUp(3), 0U);
        EXPECT_EQ(insert(table, 1, 1), 0U);
    }
    EXPECT_EQ(Number::alive, 0);
}

TEST(QelHashTable, FoldsTheHashByTheNumberOfBuckets) {
    const struct {
        std::uint32_t hash, buckets, bucket;
    } cases[] = {
        {0x01020408, 0xFF, 0x0102040F % 0xFF},         {0x01020408, 0x100, 0x0A},
        {0xABCD0000, 0xFFFF, 0xABCDABCD % 0xFFFF},     {0xABCD0000, 0x10000, 0x0AB0},
        {0xABCD0000, 0xFFFFFF, 0xABCD0AB0 % 0xFFFFFF}, {0xABCD1234, 0x1000000, 0xCD1234},
    };
    for (const auto& [hash, buckets, bucket] : cases) {
        EXPECT_EQ(Table::bucketOf(hash, buckets), bucket) << std::hex << hash << " " << buckets;
    }
}

}  // namespace

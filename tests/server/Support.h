/// A data file of its own for a test, with a small cluster in it.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

#include "server/Loader.h"
#include "server/Store.h"

inline constexpr char kSmallCluster[] = R"({
  "keys": [{"label": "old", "time": 100}, {"label": "new", "time": 200}],
  "realms": [
    {"name": "east",
     "replicaSets": [{"name": "web", "members": [{"name": "web-1", "time": 11}, {"name": "web-2", "time": 12}]},
                     {"name": "db"}],
     "sessions": [{"id": "s3", "user": "mallory", "time": 30}, {"id": "s2", "user": "mallory", "time": 20},
                  {"id": "s4", "user": "mallory", "time": 20}, {"id": "s1", "user": "josé", "time": 10}]},
    {"name": "empty"}]})";

class DataFile {
  public:
    DataFile() {
        std::string name = std::filesystem::temp_directory_path() / "dsessd-test-XXXXXX";
        m_directory = mkdtemp(name.data());
    }
    DataFile(const DataFile&) = delete;
    DataFile& operator=(const DataFile&) = delete;
    ~DataFile() { std::filesystem::remove_all(m_directory); }
    std::string path() const { return m_directory / "cluster.db"; }
    std::unique_ptr<dsessd::Store> open() const {
        return dsessd::Store::open(path(), dsessd::Store::IfMissing::kCreate);
    }
    void load(const std::string& json) const {
        std::istringstream input(json);
        loadCluster(input, *open(), dsessd::presentTime(), nullptr);
    }

  private:
    std::filesystem::path m_directory;
};

/// Identifiers in the order of the listing; `total`, when given, receives how many match.
inline std::vector<std::string> idsOf(dsessd::Store& store, const std::string& pattern, int max = -1,
                                      dsessd::Selector selector = dsessd::Selector::kUser, int* total = nullptr) {
    const auto listing = store.listSessions("east", selector, pattern, max);
    std::vector<std::string> ids;
    dsessd::SessionRow row;
    while (listing && listing->next(row)) {
        ids.emplace_back(row.id);
    }
    EXPECT_EQ(listing ? listing->count() : -1, static_cast<int>(ids.size()));
    if (total != nullptr) {
        *total = listing->total();
    }
    return ids;
}

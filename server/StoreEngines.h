/// The engines behind Store::open(), and what they share.
#pragma once

#include "server/Store.h"

namespace dsessd {

inline constexpr int kDefaultTraceLevel = 1;
inline constexpr int kKeepChangesSeconds = 3600;
/// So many old records of changes are removed with each change.
inline constexpr int kForgetAtOnce = 100;

std::unique_ptr<Store> openSqliteStore(const std::string& path, Store::IfMissing ifMissing);

bool isPostgresUri(const std::string& data);
std::unique_ptr<Store> openPostgresStore(const std::string& uri, Store::IfMissing ifMissing);
std::string nameOfPostgres(const std::string& uri);

/// A name to look for, or a pattern. What is not text is looked for in vain, like an empty name: none that is stored is
/// either. Engines do not agree on what they make of NUL and malformed characters.
std::string_view sought(std::string_view name);
std::string newKeyLabel(Seconds now);
std::string newUuid();
/// Throws ChangeMismatch unless user and digest are those recorded.
void checkSameChange(const ChangeRecord& change, std::string_view user, std::string_view digest);

}  // namespace dsessd

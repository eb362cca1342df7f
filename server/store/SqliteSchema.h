/// The tables of an SQLite store, their version, and what raises an older one.
#pragma once

#include <SQLiteCpp/SQLiteCpp.h>

#include <string>

#include "server/store/SqliteConnection.h"
#include "server/store/Store.h"

namespace dsessd::embedded {

inline constexpr int kSchemaVersion = 4;

/// Makes the index that finds the sessions of a user, and gives them in the order of users.
void makeSessionIndex(SQLite::Database& database);
/// Writes the schema's version into the file, unless it stands there already.
void setVersion(SQLite::Database& database);
void insertKey(SQLite::Database& database, Seconds now);
/// Makes the tables in a new file. Throws unless the file is ours and of this version.
void establishSchema(Connection& connection);
bool isOurs(SQLite::Database& database);
/// The version of a file of ours, which is this or an older one. Throws where it is neither.
int versionOf(SQLite::Database& database, const std::string& path);
/// Raises the tables to this version. To be called in a transaction, on a file that nobody else uses.
void raiseSchema(SQLite::Database& database, int from);
/// The only connection to a file, in a transaction that keeps all others out for as long as it lives. The write-ahead
/// log is in the file by then. Throws a Failure with Reason::kBusy when a node, or anybody, has the file open.
SQLite::Database openAlone(const std::string& path);

}  // namespace dsessd::embedded

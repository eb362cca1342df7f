/// The form of a cluster file (dsessd(8) describes it): the kinds of objects and their fields. Loader and ClusterWriter
/// both use this table.
#pragma once

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace dsessd {

enum Object : unsigned char { kCluster, kAdministrator, kKey, kChange, kRealm, kReplicaSet, kMember, kSession };
/// A long text may also be empty.
enum class FieldKind : unsigned char { kText, kLongText, kInteger, kList };

struct FieldShape {
    std::string_view name;
    FieldKind kind;
    bool required;
    /// The kind of a list's elements.
    Object element{};
};

// Lists come after all other fields, "time" and "age" at the end.
inline constexpr FieldShape kClusterFields[] = {{"id", FieldKind::kText, false},
                                                {"traceLevel", FieldKind::kInteger, false},
                                                {"administrators", FieldKind::kList, false, kAdministrator},
                                                {"keys", FieldKind::kList, false, kKey},
                                                {"changes", FieldKind::kList, false, kChange},
                                                {"realms", FieldKind::kList, true, kRealm}};
inline constexpr FieldShape kAdministratorFields[] = {
    {"name", FieldKind::kText, true}, {"passwordHash", FieldKind::kText, true}, {"role", FieldKind::kText, true}};
inline constexpr FieldShape kKeyFields[] = {
    {"label", FieldKind::kText, true}, {"time", FieldKind::kInteger, false}, {"age", FieldKind::kInteger, false}};
inline constexpr FieldShape kChangeFields[] = {{"id", FieldKind::kText, true},
                                               {"user", FieldKind::kLongText, true},
                                               {"digest", FieldKind::kLongText, true},
                                               {"answer", FieldKind::kLongText, true}};
inline constexpr FieldShape kRealmFields[] = {{"name", FieldKind::kText, true},
                                              {"replicaSets", FieldKind::kList, false, kReplicaSet},
                                              {"sessions", FieldKind::kList, false, kSession}};
inline constexpr FieldShape kReplicaSetFields[] = {{"name", FieldKind::kText, true},
                                                   {"members", FieldKind::kList, false, kMember}};
inline constexpr FieldShape kMemberFields[] = {
    {"name", FieldKind::kText, true}, {"time", FieldKind::kInteger, false}, {"age", FieldKind::kInteger, false}};
inline constexpr FieldShape kSessionFields[] = {{"id", FieldKind::kText, true},
                                                {"user", FieldKind::kText, true},
                                                {"time", FieldKind::kInteger, false},
                                                {"age", FieldKind::kInteger, false}};

struct ObjectShape {
    std::string_view name;
    std::span<const FieldShape> fields;
    bool timed;
};

inline constexpr std::array<ObjectShape, 8> kObjects{{{"a cluster", kClusterFields, false},
                                                      {"an administrator", kAdministratorFields, false},
                                                      {"a key", kKeyFields, true},
                                                      {"a change", kChangeFields, false},
                                                      {"a realm", kRealmFields, false},
                                                      {"a replica set", kReplicaSetFields, false},
                                                      {"a member", kMemberFields, true},
                                                      {"a session", kSessionFields, true}}};

inline constexpr std::size_t kMaxFields = 6;
/// The longest text of a recorded change. The longest answer that a server records is much shorter.
inline constexpr std::size_t kMaxLongTextBytes = 65'536;
inline constexpr std::size_t kMaxClusterIdBytes = 64;
inline constexpr int kMaxTraceLevel = 9;

}  // namespace dsessd

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
enum class Kind : unsigned char { kText, kLongText, kInteger, kList };

struct FieldRule {
    std::string_view name;
    Kind kind;
    bool required;
    /// The kind of a list's elements.
    Object element{};
};

// Lists come after all other fields, "time" and "age" at the end.
inline constexpr FieldRule kClusterFields[] = {{"id", Kind::kText, false},
                                               {"traceLevel", Kind::kInteger, false},
                                               {"administrators", Kind::kList, false, kAdministrator},
                                               {"keys", Kind::kList, false, kKey},
                                               {"changes", Kind::kList, false, kChange},
                                               {"realms", Kind::kList, true, kRealm}};
inline constexpr FieldRule kAdministratorFields[] = {
    {"name", Kind::kText, true}, {"passwordHash", Kind::kText, true}, {"role", Kind::kText, true}};
inline constexpr FieldRule kKeyFields[] = {
    {"label", Kind::kText, true}, {"time", Kind::kInteger, false}, {"age", Kind::kInteger, false}};
inline constexpr FieldRule kChangeFields[] = {{"id", Kind::kText, true},
                                              {"user", Kind::kLongText, true},
                                              {"digest", Kind::kLongText, true},
                                              {"answer", Kind::kLongText, true}};
inline constexpr FieldRule kRealmFields[] = {{"name", Kind::kText, true},
                                             {"replicaSets", Kind::kList, false, kReplicaSet},
                                             {"sessions", Kind::kList, false, kSession}};
inline constexpr FieldRule kReplicaSetFields[] = {{"name", Kind::kText, true},
                                                  {"members", Kind::kList, false, kMember}};
inline constexpr FieldRule kMemberFields[] = {
    {"name", Kind::kText, true}, {"time", Kind::kInteger, false}, {"age", Kind::kInteger, false}};
inline constexpr FieldRule kSessionFields[] = {{"id", Kind::kText, true},
                                               {"user", Kind::kText, true},
                                               {"time", Kind::kInteger, false},
                                               {"age", Kind::kInteger, false}};

struct ObjectRule {
    std::string_view name;
    std::span<const FieldRule> fields;
    bool timed;
};

inline constexpr std::array<ObjectRule, 8> kObjects{{{"a cluster", kClusterFields, false},
                                                     {"an administrator", kAdministratorFields, false},
                                                     {"a key", kKeyFields, true},
                                                     {"a change", kChangeFields, false},
                                                     {"a realm", kRealmFields, false},
                                                     {"a replica set", kReplicaSetFields, false},
                                                     {"a member", kMemberFields, true},
                                                     {"a session", kSessionFields, true}}};

inline constexpr std::size_t kMaxFields = 6;
/// The longest answer that is recorded fits by far.
inline constexpr std::size_t kMaxLongTextBytes = 65'536;
inline constexpr std::size_t kMaxClusterIdBytes = 64;
inline constexpr int kMaxTraceLevel = 9;

}  // namespace dsessd

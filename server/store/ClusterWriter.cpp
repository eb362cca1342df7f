#include "server/store/ClusterWriter.h"

#include <algorithm>
#include <boost/json/serialize.hpp>

namespace dsessd {

namespace {

constexpr std::size_t kPieceBytes = 65'536;

/// The field of an object that lists elements of this kind. Null: the object has no such list.
const FieldShape* listOf(Object kind, Object element) {
    const auto fields = kObjects[kind].fields;
    const auto found = std::find_if(fields.begin(), fields.end(), [element](const FieldShape& field) {
        return field.kind == FieldKind::kList && field.element == element;
    });
    return found == fields.end() ? nullptr : &*found;
}

struct Written {
    std::string operator()(std::string_view text) const {
        return boost::json::serialize(boost::json::string_view(text));
    }
    std::string operator()(std::int64_t number) const { return std::to_string(number); }
};

}  // namespace

void ClusterWriter::setCluster(std::string_view id, std::optional<int> traceLevel) {
    open(kCluster, {id, std::int64_t{traceLevel.value()}});
}

void ClusterWriter::clearAdministrators() {
    openList(kAdministrator);
}

bool ClusterWriter::addAdministrator(const Administrator& administrator) {
    return open(kAdministrator, {administrator.name, administrator.passwordHash, nameOf(administrator.role)});
}

bool ClusterWriter::addRealm(std::int64_t, std::string_view name) {
    return open(kRealm, {name});
}

bool ClusterWriter::addReplicaSet(std::int64_t, std::int64_t, std::string_view name) {
    return open(kReplicaSet, {name});
}

bool ClusterWriter::addMember(std::int64_t, const Member& member) {
    return open(kMember, {member.name, std::int64_t{member.lastContact}});
}

bool ClusterWriter::addKey(std::string_view label, Seconds time) {
    return open(kKey, {label, std::int64_t{time}});
}

void ClusterWriter::addChange(const ChangeRecord& change, std::string_view answer) {
    open(kChange, {change.id, change.user, change.digest, answer});
}

std::optional<std::size_t> ClusterWriter::addSessions(const std::vector<NewSession>& sessions) {
    for (const NewSession& session : sessions) {
        open(kSession, {session.id, session.user, std::int64_t{session.time}});
    }
    return std::nullopt;
}

void ClusterWriter::finish() {
    openList(kRealm);  // also where there is none
    while (!m_open.empty()) {
        close();
    }
    m_sink(m_text += '\n');
}

/// Begins an object with its fields, in the order of its rule; lists may follow.
bool ClusterWriter::open(Object kind, std::initializer_list<Value> values) {
    if (!m_open.empty()) {
        openList(kind);
        m_text += m_text.ends_with('[') ? "\n" : ",\n";
    }
    if (m_text.size() > kPieceBytes) {
        m_sink(m_text);
        m_text.clear();
    }
    const FieldShape* field = kObjects[kind].fields.data();
    for (const Value& value : values) {
        m_text.append(&value == values.begin() ? "{\"" : ",\"").append(field->name).append("\":");
        m_text += std::visit(Written{}, value);
        ++field;
    }
    m_open.push_back({kind});
    return true;
}

/// Opens the list that elements of this kind stand in, such as "sessions" in a realm. Closes first whatever is open and
/// has no such list.
void ClusterWriter::openList(Object element) {
    const FieldShape* list = nullptr;
    while ((list = listOf(m_open.back().kind, element)) == nullptr) {
        close();
    }
    if (m_open.back().list != element) {
        closeList();
        m_open.back().list = element;
        m_text.append(",\n\"").append(list->name).append("\":[");
    }
}

void ClusterWriter::closeList() {
    if (m_open.back().list) {
        m_text += ']';
    }
}

void ClusterWriter::close() {
    closeList();
    m_text += '}';
    m_open.pop_back();
}

}  // namespace dsessd

/// Writes a cluster as JSON, in the form that loadCluster() reads.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "server/store/ClusterShapes.h"
#include "server/store/Store.h"

namespace dsessd {

/// Takes the parts in the order in which Store::giveTo() gives them, writes a line for each, and hands the text on in
/// pieces. The text is one JSON object, so a text that was cut off cannot be loaded.
class ClusterWriter final : public ClusterTaker {
  public:
    using Sink = std::function<void(std::string_view text)>;
    explicit ClusterWriter(Sink sink) : m_sink(std::move(sink)) {}

    void setCluster(std::string_view id, std::optional<int> traceLevel) override;
    void clearAdministrators() override;
    bool addAdministrator(const Administrator& administrator) override;
    bool addRealm(std::int64_t number, std::string_view name) override;
    bool addReplicaSet(std::int64_t number, std::int64_t realm, std::string_view name) override;
    bool addMember(std::int64_t replicaSet, const Member& member) override;
    bool addKey(std::string_view label, Seconds time) override;
    void addChange(const ChangeRecord& change, std::string_view answer) override;
    std::optional<std::size_t> addSessions(const std::vector<NewSession>& sessions) override;
    /// To be called after the last part.
    void finish();

  private:
    using Value = std::variant<std::string_view, std::int64_t>;
    struct OpenObject {
        Object kind;
        /// The kind of the elements of the list that is being written.
        std::optional<Object> list{};
    };

    bool open(Object kind, std::initializer_list<Value> values);
    void openList(Object element);
    void closeList();
    void close();

    const Sink m_sink;
    std::string m_text;
    std::vector<OpenObject> m_open;
};

}  // namespace dsessd

#include "server/Loader.h"

#include <rapidjson/error/en.h>
#include <rapidjson/reader.h>

#include <array>
#include <limits>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "server/Text.h"

namespace dsessd {

namespace {

using rapidjson::SizeType;

/// RapidJSON's input stream concept over a C++ stream, counting lines.
class CountingStream {
  public:
    using Ch = char;
    explicit CountingStream(std::istream& input) : input_(input) { fill(); }

    Ch Peek() const { return at_ == end_ ? '\0' : buffer_[at_]; }
    Ch Take() {
        const Ch c = Peek();
        if (at_ == end_)
            return c;
        if (c == '\n')
            ++line_;
        if (++at_ == end_)
            fill();
        return c;
    }
    std::size_t Tell() const { return before_ + at_; }
    std::size_t line() const { return line_; }
    /// A NUL in the text looks like the end to the parser.
    bool atEnd() const { return at_ == end_; }

    // Of the concept, for streams that are written to.
    Ch* PutBegin() { return nullptr; }
    void Put(Ch) {}
    void Flush() {}
    std::size_t PutEnd(Ch*) { return 0; }

  private:
    void fill() {
        before_ += end_;
        input_.read(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
        end_ = static_cast<std::size_t>(input_.gcount());
        at_ = 0;
    }

    std::istream& input_;
    std::vector<char> buffer_ = std::vector<char>(65'536);
    std::size_t at_ = 0;
    std::size_t end_ = 0;
    std::size_t before_ = 0;
    std::size_t line_ = 1;
};

/// What may stand where: the kinds of objects in a cluster file and their fields.
enum Object : unsigned char { kCluster, kKey, kRealm, kReplicaSet, kMember, kSession };
enum class Kind : unsigned char { text, integer, list };

struct FieldRule {
    std::string_view name;
    Kind kind;
    bool required;
    /// Of what a list is.
    Object element;
};

constexpr FieldRule kClusterFields[] = {{"keys", Kind::list, false, kKey}, {"realms", Kind::list, true, kRealm}};
constexpr FieldRule kKeyFields[] = {
    {"label", Kind::text, true, {}}, {"time", Kind::integer, false, {}}, {"age", Kind::integer, false, {}}};
constexpr FieldRule kRealmFields[] = {{"name", Kind::text, true, {}},
                                      {"replicaSets", Kind::list, false, kReplicaSet},
                                      {"sessions", Kind::list, false, kSession}};
constexpr FieldRule kReplicaSetFields[] = {{"name", Kind::text, true, {}}, {"members", Kind::list, false, kMember}};
constexpr FieldRule kMemberFields[] = {
    {"name", Kind::text, true, {}}, {"time", Kind::integer, false, {}}, {"age", Kind::integer, false, {}}};
constexpr FieldRule kSessionFields[] = {{"id", Kind::text, true, {}},
                                        {"user", Kind::text, true, {}},
                                        {"time", Kind::integer, false, {}},
                                        {"age", Kind::integer, false, {}}};

struct ObjectRule {
    std::string_view name;
    std::span<const FieldRule> fields;
    bool timed;
};

constexpr std::array<ObjectRule, 6> kObjects{{{"the cluster", kClusterFields, false},
                                              {"a key", kKeyFields, true},
                                              {"a realm", kRealmFields, false},
                                              {"a replica set", kReplicaSetFields, false},
                                              {"a member", kMemberFields, true},
                                              {"a session", kSessionFields, true}}};

constexpr std::size_t kMaxFields = 4;

/// An object whose end has not come yet.
struct OpenObject {
    Object kind;
    /// Ties the parts to their whole.
    std::int64_t number = 0;
    std::array<bool, kMaxFields> seen{};
    std::array<std::string, kMaxFields> texts{};
    std::array<std::optional<std::int64_t>, kMaxFields> integers{};
    /// The field that is being read.
    std::size_t field = 0;
    bool inList = false;
};

class ClusterHandler : public rapidjson::BaseReaderHandler<rapidjson::UTF8<>, ClusterHandler> {
  public:
    ClusterHandler(Store& store, Seconds now, const LoadProgress& progress, const CountingStream& stream)
        : replacement_(store), now_(now), progress_(progress), stream_(stream) {}

    bool Default() { return fail("a value that is neither text nor a whole number nor a list"); }
    bool Int(int value) { return integer(value); }
    bool Uint(unsigned value) { return integer(value); }
    bool Int64(std::int64_t value) { return integer(value); }
    bool Uint64(std::uint64_t) { return fail("a number that is too large"); }

    bool String(const char* bytes, SizeType length, bool) {
        const std::string_view value(bytes, length);
        if (!expects(Kind::text))
            return false;
        if (value.empty() || value.size() > kMaxNameBytes || !isCleanUtf8(value))
            return fail(describe() + " is empty, longer than " + std::to_string(kMaxNameBytes) +
                        " bytes, or not UTF-8 without NUL");
        open_.back().texts[open_.back().field] = value;
        return true;
    }

    bool Key(const char* bytes, SizeType length, bool) {
        OpenObject& object = open_.back();
        const ObjectRule& rule = kObjects[object.kind];
        const std::string_view name(bytes, length);
        for (std::size_t i = 0; i < rule.fields.size(); ++i) {
            if (rule.fields[i].name != name)
                continue;
            object.field = i;
            if (object.seen[i])
                return fail(describe() + " comes twice");
            object.seen[i] = true;
            return true;
        }
        return fail(std::string(rule.name) + " has no field \"" + harmless(name, 64) + "\"");
    }

    bool StartArray() {
        if (!expects(Kind::list))
            return false;
        open_.back().inList = true;
        return true;
    }

    bool EndArray(SizeType) {
        open_.back().inList = false;
        return true;
    }

    bool StartObject() {
        if (open_.empty()) {
            open_.push_back({kCluster});
            return true;
        }
        const OpenObject& parent = open_.back();
        if (!parent.inList)
            return fail("an object where there should be none");
        OpenObject child{kObjects[parent.kind].fields[parent.field].element};
        child.number = ++lastNumber_;
        open_.push_back(std::move(child));
        return true;
    }

    bool EndObject(SizeType) {
        const OpenObject object = std::move(open_.back());
        open_.pop_back();
        const ObjectRule& rule = kObjects[object.kind];
        for (std::size_t i = 0; i < rule.fields.size(); ++i)
            if (rule.fields[i].required && !object.seen[i])
                return fail(std::string(rule.name) + " without the field \"" + std::string(rule.fields[i].name) + "\"");
        if (!store(object))
            return false;
        if (progress_ && ++stored_ % 4096 == 0)
            progress_(stream_.Tell(), counts_);
        return true;
    }

    LoadCounts finish() {
        replacement_.commit();
        return counts_;
    }
    const std::string& problem() const { return problem_; }

  private:
    bool fail(const std::string& why) {
        problem_ = why;
        return false;
    }

    std::string describe() const {
        const ObjectRule& rule = kObjects[open_.back().kind];
        return "the field \"" + std::string(rule.fields[open_.back().field].name) + "\" of " + std::string(rule.name);
    }

    bool expects(Kind kind) {
        if (open_.empty())
            return fail("the cluster is not an object");
        const OpenObject& object = open_.back();
        if (object.inList)
            return fail("something other than an object in " + describe());
        if (kObjects[object.kind].fields[object.field].kind != kind)
            return fail(describe() + " is of the wrong type");
        return true;
    }

    bool integer(std::int64_t value) {
        if (!expects(Kind::integer))
            return false;
        open_.back().integers[open_.back().field] = value;
        return true;
    }

    /// The time of an object, whose last two fields are "time" and "age".
    bool timeOf(const OpenObject& object, Seconds& time) {
        const ObjectRule& rule = kObjects[object.kind];
        const auto& absolute = object.integers[rule.fields.size() - 2];
        const auto& age = object.integers[rule.fields.size() - 1];
        if (absolute.has_value() == age.has_value())
            return fail(std::string(rule.name) + " needs one of the fields \"time\" and \"age\"");
        constexpr std::int64_t kLatest = std::numeric_limits<Seconds>::max();
        if ((age && (*age < 0 || *age > now_)) || (absolute && (*absolute < 0 || *absolute > kLatest)))
            return fail("the time of " + std::string(rule.name) + " is not between 0 and " + std::to_string(kLatest));
        time = static_cast<Seconds>(absolute ? *absolute : now_ - *age);
        return true;
    }

    /// Keeps what ended, under what is still open around it.
    bool store(const OpenObject& object) {
        const std::int64_t parent = open_.empty() ? 0 : open_.back().number;
        const std::string& name = object.texts[0];
        Seconds time = 0;
        if (kObjects[object.kind].timed && !timeOf(object, time))
            return false;
        bool isNew = true;
        switch (object.kind) {
            case kCluster:
                break;
            case kKey:
                isNew = replacement_.addKey(name, time);
                ++counts_.keys;
                break;
            case kRealm:
                isNew = replacement_.addRealm(object.number, name);
                ++counts_.realms;
                break;
            case kReplicaSet:
                isNew = replacement_.addReplicaSet(object.number, parent, name);
                ++counts_.replicaSets;
                break;
            case kMember:
                isNew = replacement_.addMember(parent, {name, time});
                ++counts_.members;
                break;
            case kSession:
                isNew = replacement_.addSession(parent, {name, object.texts[1], time});
                ++counts_.sessions;
                break;
        }
        return isNew || fail(std::string(kObjects[object.kind].name) + " \"" + harmless(name, 64) + "\" comes twice");
    }

    Store::Replacement replacement_;
    const Seconds now_;
    const LoadProgress& progress_;
    const CountingStream& stream_;
    std::vector<OpenObject> open_;
    std::int64_t lastNumber_ = 0;
    std::int64_t stored_ = 0;
    LoadCounts counts_;
    std::string problem_;
};

}  // namespace

LoadCounts loadCluster(std::istream& input, Store& store, Seconds now, const LoadProgress& progress) {
    CountingStream stream(input);
    ClusterHandler handler(store, now, progress, stream);
    rapidjson::Reader reader;
    const rapidjson::ParseResult result = reader.Parse<rapidjson::kParseIterativeFlag>(stream, handler);
    if (input.bad())
        throw LoadError(stream.line(), "reading failed");
    if (result.IsError()) {
        const bool ours = result.Code() == rapidjson::kParseErrorTermination;
        throw LoadError(stream.line(), ours ? handler.problem() : rapidjson::GetParseError_En(result.Code()));
    }
    if (!stream.atEnd())
        throw LoadError(stream.line(), "a NUL byte");
    return handler.finish();
}

}  // namespace dsessd

// Configuration: trees of values in TOML files, which people write and programs read and change. A change touches only
// its own place in the text; comments, order and formatting of everything else stay as they are. docs/configuration.md
// describes files, paths and packs, with examples.
//
// A path leads from the root to a value: "server.listen[0].port". Names are separated by dots. A name of other
// characters than ASCII letters, digits, '_' and '-' stands in quotes, as in TOML: `host."www.example.org".port`. [0]
// is the first element of an array; [] is a new one behind the last, for changes only. The empty path is the root.
//
// While no thread changes an object, any number may read it at once.
#pragma once

#include "qor/system/Interface.h"
#include "qor/system/Memory.h"
#include "qor/system/StringArray.h"
#include "qor/system/template/SmartPointer.h"

#include <concepts>
#include <limits>
#include <optional>
#include <string_view>
#include <utility>

// The kinds of values.
enum class qorConfigKind : uint32 {
    none,    // no value
    logical, // true or false
    integer, // 64 bits, signed
    number,  // a double
    text,    // UTF-8
    time,    // a date, a time of day, or both
    array,
    table, // values with names
};

// A date, a time of day, or both; only a complete one may say how far it is ahead of UTC.
struct qorConfigTime {
    bool has_date = false;   // year, month and day count
    bool has_time = false;   // hour to nanosecond count
    bool has_offset = false; // offset counts
    uint16 year = 0;         // 0 to 9999
    uint8 month = 0;         // 1 to 12
    uint8 day = 0;           // 1 to 31
    uint8 hour = 0;          // 0 to 23
    uint8 minute = 0;        // 0 to 59
    uint8 second = 0;        // 0 to 59
    uint32 nanosecond = 0;   // 0 to 999,999,999
    int32 offset = 0;        // minutes ahead of UTC

    bool operator==(const qorConfigTime&) const noexcept = default;
};

// A value. Only the member of its kind counts.
struct qorConfigValue {
    qorConfigKind kind = qorConfigKind::none; // which of the members counts
    uint32 count = 0;                         // of an array or a table: the number of entries
    union {
        bool logical;
        int64 integer = 0;
        double number;
    };
    const char* text = nullptr; // terminated; as long as the object that it comes from is not changed
    uint32 length = 0;          // of the text
    qorConfigTime time;         // of the kind time
};

// The values that a caller can use. Another one is refused.
struct qorConfigWish {
    qorConfigKind kind = qorConfigKind::none;          // none: any. For `number`, an integer is converted
    int64 least = (std::numeric_limits<int64>::min)(); // of an integer
    int64 most = (std::numeric_limits<int64>::max)();  // of an integer
};

// A place in a file: lines and columns count from 1, columns in characters. Line 0: no place is known.
struct qorConfigOrigin {
    qorString file;    // its path
    uint32 line = 0;   // from 1
    uint32 column = 0; // from 1
};

// A tree of values. `qorConfig` below is the convenient way to use it.
class IQORConfigNode : public IQORInterface {
public:
    // Gets a value. An absent value is no failure: out.kind is none then. Returns false and sets the last error, which
    // names file and line, if the value is not as wished, or if this is not a path; out.kind is none then, too.
    virtual bool GetValue(const char* path, const qorConfigWish& wish, qorConfigValue& out) noexcept = 0;

    // Gets the names in a table, in the order of the file. Returns false and empties `out` if there is no table.
    virtual bool GetNames(const char* path, qorStringArray& out) noexcept = 0;

    // Gets the place where a value comes from. A table begins at its header, or at its first entry. Returns false and
    // leaves `out` unchanged if there is no such value.
    virtual bool GetOrigin(const char* path, qorConfigOrigin& out) noexcept = 0;

    // Sets a value, and creates the tables on the way to it. SetLiteral takes it as text in TOML, so it may also be an
    // array or an inline table; an array or a table as `value` is refused. Returns false and changes nothing on
    // failure: there is a table of several lines in this place, or something on the way is no table.
    [[nodiscard]] virtual bool SetValue(const char* path, const qorConfigValue& value) noexcept = 0;
    [[nodiscard]] virtual bool SetLiteral(const char* path, const char* literal) noexcept = 0;

    // Removes a value, or a table with all that is in it. A table without a header of its own ends with its last entry.
    // Returns false and changes nothing if there is no such value.
    [[nodiscard]] virtual bool Remove(const char* path) noexcept = 0;

protected:
    ~IQORConfigNode() = default;
};

class IQORConfigFile;

// Is told of changes by others (IQORConfigFile::Watch). The client implements it.
class IQORConfigWatcher {
public:
    // Like those of IQORInterface.
    virtual void AddRef() noexcept = 0;
    virtual void Release() noexcept = 0;
    virtual int QueryInterface(const char* name, void** out) noexcept = 0;

    // Called on a thread of the framework, once for each change. The object is as it was; Reload makes it new, on the
    // thread that uses the object.
    virtual void ConfigChanged() noexcept = 0;

protected:
    ~IQORConfigWatcher() = default;
};

// A configuration file with its drop-ins.
class IQORConfigFile : public IQORConfigNode {
public:
    // Gets the path of the file that Save writes.
    virtual void GetPath(qorString& out) noexcept = 0;

    // Whether there are changes that are not saved.
    virtual bool IsModified() noexcept = 0;

    // Writes the changes since the last Save. The changes of others since then are read first, and the changes are
    // made there, so that no change of either is lost; of two for the same value the later one counts. The object then
    // shows the result. The file is replaced at once or not at all. Returns false and keeps the changes on failure: the
    // file cannot be read or is invalid, it leaves no room for a change, or another process keeps it locked for more
    // than ten seconds.
    [[nodiscard]] virtual bool Save() noexcept = 0;

    // Reads the files again. Changes that are not saved stay. Returns false and changes nothing on failure.
    [[nodiscard]] virtual bool Reload() noexcept = 0;

    // Tells `watcher`, in place of an earlier one, of changes that others make to the files, as soon as they are whole:
    // while a file is invalid, or still grows, it waits. Null ends that; afterwards, and after the last Release, no
    // call is under way, except when it is the watcher itself that ends it. Returns false on failure.
    [[nodiscard]] virtual bool Watch(IQORConfigWatcher* watcher) noexcept = 0;

protected:
    ~IQORConfigFile() = default;
};

// Several trees, one over the other. A table consists of the entries of all of them, and of the rest the uppermost
// counts as a whole, arrays included. It shows changes of the trees at once. Changes go to the uppermost one.
class IQORConfigPack : public IQORConfigNode {
public:
    // Lays a tree over all the others; null is refused.
    virtual bool Add(IQORConfigNode* node) noexcept = 0;

    // The number of trees.
    virtual uint32 GetCount() noexcept = 0;

protected:
    ~IQORConfigPack() = default;
};

// ---- opening. `name` is a relative path without ".toml", such as "editor" or "acme/editor"; no part of it begins with
// a dot. An operation returns false and leaves *out unchanged if a file is missing, cannot be read or is invalid; the
// last error names file, line and column.

// Opens the configuration of the system: NAME.toml in each of its folders, one over the other, with drop-ins. One must
// exist; Save writes the uppermost.
[[nodiscard]] inline bool qorOpenSystemConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return qor::glue::qorOpenSystemConfigFile(name, out);
}

// The same; if none exists, creates an empty file in the uppermost folder.
[[nodiscard]] inline bool qorCreateSystemConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return qor::glue::qorCreateSystemConfigFile(name, out);
}

// Opens the configuration of the user, which must exist.
[[nodiscard]] inline bool qorOpenUserConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return qor::glue::qorOpenUserConfigFile(name, out);
}

// The same; if it does not exist, creates it with `text`, which must be valid.
[[nodiscard]] inline bool qorInitUserConfigFile(const char* name, const char* text, IQORConfigFile** out) noexcept {
    return qor::glue::qorInitUserConfigFile(name, text, out);
}

// The same; if it does not exist, creates an empty one.
[[nodiscard]] inline bool qorCreateUserConfigFile(const char* name, IQORConfigFile** out) noexcept {
    return qor::glue::qorCreateUserConfigFile(name, out);
}

// Opens a file by its absolute path; Create creates an empty one if it does not exist.
[[nodiscard]] inline bool qorOpenConfigFileAbsolute(const char* path, IQORConfigFile** out) noexcept {
    return qor::glue::qorOpenConfigFileAbsolute(path, out);
}
[[nodiscard]] inline bool qorCreateConfigFileAbsolute(const char* path, IQORConfigFile** out) noexcept {
    return qor::glue::qorCreateConfigFileAbsolute(path, out);
}

// Creates a tree without values, for a program that goes on without its configuration: every question gets its default.
// It cannot be changed. Throws std::bad_alloc, like the next one.
inline void qorCreateDummyConfigNode(IQORConfigNode** out) {
    qor::glue::qorCreateDummyConfigNode(out);
    qor::glue::or_throw(*out);
}

// Creates a pack without trees.
inline void qorCreateConfigPack(IQORConfigPack** out) {
    qor::glue::qorCreateConfigPack(out);
    qor::glue::or_throw(*out);
}

// Adds a name to a path, in quotes if it needs them.
inline void qorAddConfigName(qorString& path, std::string_view name) noexcept {
    bool is_bare = !name.empty();
    for (const char c : name)
        is_bare = is_bare &&
                  ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-');
    if (!path.IsEmpty())
        path.Append(".");
    if (is_bare) {
        path.Append(name);
        return;
    }
    path.Append("\"");
    for (const char c : name) {
        const auto code = static_cast<unsigned char>(c);
        qorString escape;
        if (c == '"' || c == '\\')
            path.Append("\\");
        if (code < 0x20 || code == 0x7f)
            escape.Printf("\\u%04X", code);
        else
            escape.Append(&c, 1);
        path.Append(escape);
    }
    path.Append("\"");
}

// ---- values of C++

namespace qor::config {

// How a type of C++ is asked for, taken from a value and stored in one.
template <class TYPE>
struct conversion;

template <>
struct conversion<bool> {
    static constexpr qorConfigWish wish = {qorConfigKind::logical};
    static bool from(const qorConfigValue& value) noexcept { return value.logical; }
    static void to(bool from, qorConfigValue& value) noexcept { value.logical = from; }
};

// A value beyond the range of the type is refused.
template <std::integral TYPE>
struct conversion<TYPE> {
    static constexpr qorConfigWish wish = {
        qorConfigKind::integer, std::is_signed_v<TYPE> ? static_cast<int64>((std::numeric_limits<TYPE>::min)()) : 0,
        sizeof(TYPE) < sizeof(int64) || std::is_signed_v<TYPE> ? static_cast<int64>((std::numeric_limits<TYPE>::max)())
                                                               : (std::numeric_limits<int64>::max)()};
    static TYPE from(const qorConfigValue& value) noexcept { return static_cast<TYPE>(value.integer); }
    static void to(TYPE from, qorConfigValue& value) noexcept { value.integer = static_cast<int64>(from); }
};

template <std::floating_point TYPE>
struct conversion<TYPE> {
    static constexpr qorConfigWish wish = {qorConfigKind::number};
    static TYPE from(const qorConfigValue& value) noexcept { return static_cast<TYPE>(value.number); }
    static void to(TYPE from, qorConfigValue& value) noexcept { value.number = static_cast<double>(from); }
};

template <>
struct conversion<std::string_view> {
    static constexpr qorConfigWish wish = {qorConfigKind::text};
    static std::string_view from(const qorConfigValue& value) noexcept { return {value.text, value.length}; }
    static void to(std::string_view from, qorConfigValue& value) noexcept {
        value.text = from.data();
        value.length = qor::glue::counted_length(from.size());
    }
};

template <>
struct conversion<qorConfigTime> {
    static constexpr qorConfigWish wish = {qorConfigKind::time};
    static qorConfigTime from(const qorConfigValue& value) noexcept { return value.time; }
    static void to(const qorConfigTime& from, qorConfigValue& value) noexcept { value.time = from; }
};

} // namespace qor::config

// A place in a tree, which need not exist: a node and a path. Copies share the node.
//
//   const qorConfig server = qorConfig(*file)["server"];
//   const auto port = server.Get<uint16>("port", 80);
//   for (const qorConfig& each : server["listen"])
//       listen(each.Get("address", "::"), each.Get<uint16>("port", port));
//
// TYPE is bool, an integer, a floating-point type, std::string_view (valid until the tree is changed) or qorConfigTime.
class qorConfig {
public:
    // The root of a tree, or another place in it.
    explicit qorConfig(IQORConfigNode* node, const char* path = "") noexcept : m_path(path) {
        node->AddRef();
        m_node.AttachNew(node);
    }

    // A place below this one; a path that begins with '[' leads to an element of an array. The operator takes one name,
    // whatever its characters, or the number of an element.
    qorConfig At(const char* path) const noexcept { return qorConfig(*m_node, whole(path)); }
    qorConfig operator[](std::string_view name) const noexcept {
        qorString path = m_path;
        qorAddConfigName(path, name);
        return qorConfig(*m_node, path);
    }
    qorConfig operator[](const char* name) const noexcept { return (*this)[std::string_view(name)]; }
    template <std::integral INDEX>
    qorConfig operator[](INDEX index) const noexcept {
        qorString path;
        path.Printf("%s[%llu]", m_path.Text(), static_cast<unsigned long long>(index));
        return qorConfig(*m_node, path);
    }

    // The path from the root.
    const qorString& Path() const noexcept { return m_path; }

    // The value at `path` below this place, or nothing if there is no value, or if it is of another kind or beyond the
    // range of the type; then the last error names the file and the line.
    template <class TYPE>
    std::optional<TYPE> Find(const char* path = "") const noexcept {
        qorConfigValue value;
        if (!m_node->GetValue(whole(path), qor::config::conversion<TYPE>::wish, value) ||
            value.kind == qorConfigKind::none)
            return std::nullopt;
        return qor::config::conversion<TYPE>::from(value);
    }

    // The same with a default in place of nothing.
    template <class TYPE>
    TYPE Get(const char* path, TYPE otherwise) const noexcept {
        return Find<TYPE>(path).value_or(otherwise);
    }
    std::string_view Get(const char* path, const char* otherwise) const noexcept {
        return Get<std::string_view>(path, otherwise);
    }

    // The kind of the value here, and the number of entries in an array or a table, otherwise 0.
    qorConfigKind Kind() const noexcept { return value().kind; }
    uint32 Count() const noexcept { return value().count; }

    // The names in this table; empty if this is not a table.
    qorStringArray Names() const noexcept {
        qorStringArray names;
        if (Kind() == qorConfigKind::table)
            m_node->GetNames(m_path, names);
        return names;
    }

    // The place in a file where the value here comes from; the line is 0 if there is no value.
    qorConfigOrigin Origin() const noexcept {
        qorConfigOrigin origin;
        if (Kind() != qorConfigKind::none)
            m_node->GetOrigin(m_path, origin);
        return origin;
    }

    // Changes, as those of the node. An unsigned number beyond int64 is refused.
    template <class TYPE>
    requires(!std::is_convertible_v<const TYPE&, std::string_view>)
        [[nodiscard]] bool Set(const char* path, const TYPE& from) const noexcept {
        qorConfigValue value;
        value.kind = qor::config::conversion<TYPE>::wish.kind;
        if constexpr (std::is_same_v<TYPE, uint64>)
            if (from > static_cast<uint64>((std::numeric_limits<int64>::max)())) {
                qorString text;
                text.FormatUnsigned(from, 10);
                return m_node->SetLiteral(whole(path), text);
            }
        qor::config::conversion<TYPE>::to(from, value);
        return m_node->SetValue(whole(path), value);
    }
    [[nodiscard]] bool Set(const char* path, std::string_view from) const noexcept {
        qorConfigValue value;
        value.kind = qorConfigKind::text;
        qor::config::conversion<std::string_view>::to(from, value);
        return m_node->SetValue(whole(path), value);
    }
    [[nodiscard]] bool SetLiteral(const char* path, const char* literal) const noexcept {
        return m_node->SetLiteral(whole(path), literal);
    }
    [[nodiscard]] bool Remove(const char* path) const noexcept { return m_node->Remove(whole(path)); }

    // The elements of an array as places, for range-for; of what is no array, none.
    class iterator {
    public:
        // Stands before the element with this index.
        iterator(const qorConfig& array, uint32 index) noexcept : m_array(&array), m_index(index) {}
        // The element as a place.
        qorConfig operator*() const noexcept { return (*m_array)[m_index]; }
        // Goes on to the next element.
        iterator& operator++() noexcept {
            ++m_index;
            return *this;
        }
        // Both are of the same array.
        bool operator==(const iterator& other) const noexcept { return m_index == other.m_index; }

    private:
        const qorConfig* m_array;
        uint32 m_index;
    };
    // The first element; end() if this is no array.
    iterator begin() const noexcept { return {*this, 0}; }
    // Behind the last element.
    iterator end() const noexcept { return {*this, Kind() == qorConfigKind::array ? Count() : 0}; }

private:
    qorConfigValue value() const noexcept {
        qorConfigValue value;
        m_node->GetValue(m_path, {}, value);
        return value;
    }

    qorString whole(const char* path) const noexcept {
        qorString joined = m_path;
        if (!m_path.IsEmpty() && *path != '\0' && *path != '[')
            joined.Append(".");
        joined.Append(path);
        return joined;
    }

    zetSmartPointer<IQORConfigNode> m_node;
    qorString m_path;
};

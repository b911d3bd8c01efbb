#pragma once
// The hive library's interface: a hive file opened through the file-system facade (inside an
// image partition or on the host), its logs replayed first, with key and value nodes handed out
// as reference-counted handles. A null handle or false means "not found" or "failed"; the last
// error code says which. Names are UTF-8; the codepage argument is accepted and not needed.

#include "platform/core/access.h"
#include "platform/core/ref.h"
#include "platform/fs/filesys.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Platform::Hive {

struct HiveState;
class KeyNode;
class ValueNode;

// A value's data as a stream: resize first, then read and write at the position.
class ValueStream : public Object {
public:
    virtual std::uint64_t size() = 0;
    // The size reached.
    virtual std::uint64_t resize(std::uint64_t size) = 0;
    virtual bool seek(std::uint64_t position) = 0;
    // The count read or written; writing never grows the data.
    virtual std::uint64_t read(void* buffer, std::uint64_t length) = 0;
    virtual std::uint64_t write(const void* buffer, std::uint64_t length) = 0;
};

class ValueIterator : public Object {
public:
    // The next value, or null at the end; the one just returned may be deleted meanwhile.
    virtual Ref<ValueNode> next() = 0;
};

class KeyIterator : public Object {
public:
    virtual Ref<KeyNode> next() = 0;
};

class ValueNode : public Object {
public:
    virtual std::string name() = 0;
    virtual std::uint32_t type() = 0;
    // Strings up to maxLength characters (UTF-16 units); nothing when the data is no string.
    virtual std::optional<std::string> getString(std::size_t maxLength) = 0;
    virtual bool setString(const std::string& text) = 0;
    // DWORD, big-endian DWORD or QWORD; -1 for any other type.
    virtual std::int64_t getNumber() = 0;
    virtual bool setNumber(std::uint64_t number) = 0;
    virtual std::optional<std::vector<std::string>> getMultiString(std::size_t maxLength) = 0;
    virtual bool setMultiString(const std::vector<std::string>& strings) = 0;
    virtual std::optional<std::vector<std::uint8_t>> data() = 0;
    virtual bool setData(std::uint32_t type, const std::vector<std::uint8_t>& data) = 0;
    virtual Ref<ValueStream> stream() = 0;
};

class KeyNode : public Object {
public:
    virtual std::string name() = 0;
    virtual Ref<KeyIterator> subkeys() = 0;
    virtual Ref<ValueIterator> values() = 0;
    // The child of that name, made when it does not exist.
    virtual Ref<KeyNode> createKey(const std::string& name) = 0;
    // The value of that name with that type and no data, made or emptied.
    virtual Ref<ValueNode> createValue(const std::string& name, std::uint32_t type) = 0;
    virtual bool deleteValue(const Ref<ValueNode>& value) = 0;
    // Removes the child with everything below it.
    virtual bool removeKey(const Ref<KeyNode>& child) = 0;
    virtual bool rename(const std::string& name) = 0;
    virtual Ref<KeyNode> subkey(const std::string& name) = 0;
    // A key below this one by a path of "/" or "\" separated names.
    virtual Ref<KeyNode> find(const std::string& path) = 0;
    virtual Ref<ValueNode> value(const std::string& name) = 0;
};

// Where a hive's transaction logs are: opened and created by name beside the primary.
struct LogAccess {
    std::vector<std::string> names; // the existing files beside the primary, for LOG1, LOG2, LOG
    std::function<Ref<File>(const std::string& name)> open;
    std::function<Ref<File>(const std::string& name)> create;
    std::string baseName; // the primary's name, for logs made new
};

class HiveFile : public Object {
public:
    // The hive in stream. A dirty hive is brought up to date from its logs first; without a log
    // that finishes it, it opens read-only and the reason is logged. Null with the error set
    // when the file is no hive or is damaged. Without logs (no LogAccess that can create one)
    // the hive can be read and edited but not flushed: nothing is written without a log.
    static Ref<HiveFile> open(Ref<File> stream, std::uint32_t flags, std::uint32_t codepage,
                              const LogAccess* logs = nullptr, Access access = Access::ReadWrite);

    Ref<KeyNode> root();
    // Writes what changed with Windows' log-first protocol; nothing when nothing changed.
    bool flush();
    bool writable() const;
    // Whether the open replayed logs that the primary does not hold yet.
    bool recovered() const;
    std::uint32_t lastError() const;
    // The whole tree as .reg text, or the key at path and below it.
    bool exportReg(const std::string& path, std::ostream& out);
    // The channel of the hive engine's log lines.
    static LogChannel channel();

    ~HiveFile() override;

private:
    explicit HiveFile(std::shared_ptr<HiveState> state);
    std::shared_ptr<HiveState> state_;
};

namespace Utils {
// The hive at path in fs, its logs found beside it in any letter case. flags: passed as is.
Ref<HiveFile> openHive(const Ref<Filesys>& fs, const std::string& path, bool writable, std::uint32_t codepage,
                       std::uint32_t flags);
} // namespace Utils

} // namespace Platform::Hive

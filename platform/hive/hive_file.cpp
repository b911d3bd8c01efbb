#include "platform/hive/hive_file.h"

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/core/string_util.h"
#include "platform/core/unicode.h"
#include "platform/hive/flush.h"
#include "platform/hive/layout.h"
#include "platform/hive/names.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>

namespace Platform::Hive {

class KeyNodeImpl;
class ValueNodeImpl;

// What every handle of one open hive shares.
struct HiveState {
    std::optional<Hive> hive;
    HiveFiles files;
    std::vector<std::vector<std::uint8_t>> logBytes; // LOG, which only recovery reads
    std::optional<PendingReplay> pendingReplay;
    bool writable = false;
    std::uint32_t lastError = 0;
    std::vector<KeyNodeImpl*> keys;
    std::vector<ValueNodeImpl*> values;

    bool fail()
    {
        lastError = Error::get() ? Error::get() : Error::Io;
        return false;
    }
    bool refuseReadOnly()
    {
        if (writable)
            return true;
        Error::set(Error::ReadOnly, "the hive is open read-only");
        return fail();
    }
    void forgetReleased();

    // A handle's record, read again at each use; nothing (the error kept) once it is deleted.
    template <typename Record>
    std::optional<Record> recordOf(bool dead, const char* what,
                                   std::optional<Record> (*read)(const Cells&, std::uint32_t), std::uint32_t offset)
    {
        if (dead) {
            Error::set(Error::PathNotFound, std::string("the ") + what + " was deleted");
            fail();
            return std::nullopt;
        }
        auto record = read(hive->cells(), offset);
        if (!record)
            fail();
        return record;
    }
};

namespace {

std::vector<std::uint8_t> utf16Bytes(const std::string& text, bool terminated)
{
    std::u16string units = utf16(text);
    if (terminated)
        units += u'\0';
    std::vector<std::uint8_t> bytes;
    for (const char16_t unit : units) {
        bytes.push_back(std::uint8_t(unit));
        bytes.push_back(std::uint8_t(unit >> 8));
    }
    return bytes;
}

std::u16string unitsOf(const std::vector<std::uint8_t>& bytes)
{
    std::u16string units;
    for (std::size_t i = 0; i + 1 < bytes.size(); i += 2)
        units += char16_t(bytes[i] | bytes[i + 1] << 8);
    return units;
}

} // namespace

class ValueNodeImpl final : public ValueNode {
public:
    ValueNodeImpl(std::shared_ptr<HiveState> state, std::uint32_t key, std::uint32_t offset)
        : state_(std::move(state)), key_(key), offset_(offset)
    {
        state_->values.push_back(this);
    }
    ~ValueNodeImpl() override { std::erase(state_->values, this); }

    std::uint32_t key() const { return key_; }
    std::uint32_t offset() const { return offset_; }
    void kill() { dead_ = true; }
    void moveKey(std::uint32_t from, std::uint32_t to)
    {
        if (key_ == from)
            key_ = to;
    }
    bool alive() const { return !dead_; }

    std::optional<ValueRecord> record() { return state_->recordOf(dead_, "value", readValue, offset_); }

    std::string name() override
    {
        const auto value = record();
        return value ? value->name : std::string();
    }
    std::uint32_t type() override
    {
        const auto value = record();
        return value ? value->type : 0;
    }
    std::optional<std::vector<std::uint8_t>> data() override
    {
        const auto value = record();
        auto bytes = value ? readData(state_->hive->cells(), *value, state_->hive->base().minorVersion) : std::nullopt;
        if (value && !bytes)
            state_->fail();
        return bytes;
    }
    bool setData(std::uint32_t type, const std::vector<std::uint8_t>& bytes) override
    {
        const auto value = record();
        if (!value || !state_->refuseReadOnly())
            return false;
        if (!state_->hive->setValue(key_, value->name, type, bytes))
            return state_->fail();
        return true;
    }

    std::optional<std::string> getString(std::size_t maxLength) override
    {
        const auto bytes = data();
        if (!bytes)
            return std::nullopt;
        std::u16string units = unitsOf(*bytes);
        units = units.substr(0, std::min(units.find(u'\0'), maxLength));
        return utf8(units);
    }
    bool setString(const std::string& text) override { return setData(type(), utf16Bytes(text, true)); }

    std::int64_t getNumber() override
    {
        const auto value = record();
        const auto bytes = data();
        if (!value || !bytes)
            return -1;
        std::uint64_t number = 0;
        if ((value->type == 4 || value->type == 5) && bytes->size() >= 4) {
            for (std::size_t i = 0; i < 4; ++i)
                number |= std::uint64_t((*bytes)[value->type == 4 ? i : 3 - i]) << (8 * i);
            return std::int64_t(number);
        }
        if (value->type == 11 && bytes->size() >= 8) {
            for (std::size_t i = 0; i < 8; ++i)
                number |= std::uint64_t((*bytes)[i]) << (8 * i);
            return std::int64_t(number);
        }
        return -1;
    }
    bool setNumber(std::uint64_t number) override
    {
        const std::uint32_t kind = type();
        if (kind != 4 && kind != 5 && kind != 11) {
            Error::set(Error::Invalid, "the value holds no number");
            return state_->fail();
        }
        // Filled in a fixed buffer: GCC 12 at -O3 warns falsely (-Wstringop-overflow) on indexed
        // stores into a vector of either size.
        const std::size_t width = kind == 11 ? 8 : 4;
        std::array<std::uint8_t, 8> buffer{};
        for (std::size_t i = 0; i < width; ++i)
            buffer[kind == 5 ? width - 1 - i : i] = std::uint8_t(number >> (8 * i)); // 5: big-endian
        return setData(kind, std::vector<std::uint8_t>(buffer.begin(), buffer.begin() + std::ptrdiff_t(width)));
    }

    std::optional<std::vector<std::string>> getMultiString(std::size_t maxLength) override
    {
        const auto bytes = data();
        if (!bytes)
            return std::nullopt;
        std::u16string units = unitsOf(*bytes).substr(0, maxLength);
        std::vector<std::string> strings;
        for (std::size_t start = 0; start < units.size();) {
            const std::size_t end = std::min(units.find(u'\0', start), units.size());
            if (end == start)
                break;
            strings.push_back(utf8(units.substr(start, end - start)));
            start = end + 1;
        }
        return strings;
    }
    bool setMultiString(const std::vector<std::string>& strings) override
    {
        std::vector<std::uint8_t> bytes;
        for (const auto& text : strings) {
            const auto one = utf16Bytes(text, true);
            bytes.insert(bytes.end(), one.begin(), one.end());
        }
        bytes.push_back(0);
        bytes.push_back(0);
        return setData(type(), bytes);
    }

    Ref<ValueStream> stream() override;

    HiveState& state() { return *state_; }

private:
    std::shared_ptr<HiveState> state_;
    std::uint32_t key_;
    std::uint32_t offset_;
    bool dead_ = false;
};

namespace {

class StreamImpl final : public ValueStream {
public:
    explicit StreamImpl(Ref<ValueNodeImpl> value) : value_(std::move(value)) {}

    std::uint64_t size() override
    {
        const auto record = value_->record();
        return record ? record->dataSize : 0;
    }
    std::uint64_t resize(std::uint64_t size) override
    {
        auto bytes = value_->data();
        if (!bytes)
            return this->size();
        bytes->resize(std::size_t(size), 0);
        value_->setData(value_->type(), *bytes);
        return this->size();
    }
    bool seek(std::uint64_t position) override
    {
        position_ = position;
        return true;
    }
    std::uint64_t read(void* buffer, std::uint64_t length) override
    {
        const auto bytes = value_->data();
        if (!bytes || position_ >= bytes->size())
            return 0;
        const std::uint64_t count = std::min<std::uint64_t>(length, bytes->size() - position_);
        std::memcpy(buffer, bytes->data() + position_, std::size_t(count));
        position_ += count;
        return count;
    }
    std::uint64_t write(const void* buffer, std::uint64_t length) override
    {
        const std::uint64_t size = this->size();
        if (position_ >= size || !value_->state().refuseReadOnly())
            return 0;
        const std::uint64_t count = std::min(length, size - position_);
        const auto bytes = std::span(static_cast<const std::uint8_t*>(buffer), std::size_t(count));
        if (!value_->state().hive->patchData(value_->offset(), std::size_t(position_), bytes)) {
            value_->state().fail();
            return 0;
        }
        position_ += count;
        return count;
    }

private:
    Ref<ValueNodeImpl> value_;
    std::uint64_t position_ = 0;
};

} // namespace

Ref<ValueStream> ValueNodeImpl::stream()
{
    if (!record())
        return nullptr;
    return Ref<ValueStream>(new StreamImpl(Ref<ValueNodeImpl>(this)));
}

class KeyNodeImpl final : public KeyNode {
public:
    KeyNodeImpl(std::shared_ptr<HiveState> state, std::uint32_t offset) : state_(std::move(state)), offset_(offset)
    {
        state_->keys.push_back(this);
    }
    ~KeyNodeImpl() override { std::erase(state_->keys, this); }

    std::uint32_t offset() const { return offset_; }
    void kill() { dead_ = true; }
    void move(std::uint32_t from, std::uint32_t to)
    {
        if (offset_ == from)
            offset_ = to;
    }

    std::optional<KeyRecord> record() { return state_->recordOf(dead_, "key", readKey, offset_); }

    std::string name() override
    {
        const auto key = record();
        return key ? key->name : std::string();
    }

    Ref<KeyIterator> subkeys() override;
    Ref<ValueIterator> values() override;

    Ref<KeyNode> createKey(const std::string& name) override
    {
        if (!record() || !state_->refuseReadOnly())
            return nullptr;
        const auto child = state_->hive->createKey(offset_, name);
        if (!child) {
            state_->fail();
            return nullptr;
        }
        return Ref<KeyNode>(new KeyNodeImpl(state_, *child));
    }
    Ref<ValueNode> createValue(const std::string& name, std::uint32_t type) override
    {
        if (!record() || !state_->refuseReadOnly())
            return nullptr;
        const auto value = state_->hive->setValue(offset_, name, type, {});
        if (!value) {
            state_->fail();
            return nullptr;
        }
        return Ref<ValueNode>(new ValueNodeImpl(state_, offset_, *value));
    }
    bool deleteValue(const Ref<ValueNode>& value) override
    {
        auto* node = dynamic_cast<ValueNodeImpl*>(value.get());
        if (!node || !node->alive() || !record() || !state_->refuseReadOnly())
            return state_->fail();
        const bool done = state_->hive->deleteValue(offset_, node->offset());
        state_->forgetReleased();
        return done || state_->fail();
    }
    bool removeKey(const Ref<KeyNode>& child) override
    {
        auto* node = dynamic_cast<KeyNodeImpl*>(child.get());
        if (!node || !node->record() || !record() || !state_->refuseReadOnly())
            return state_->fail();
        const bool done = state_->hive->deleteKey(offset_, node->offset());
        state_->forgetReleased();
        return done || state_->fail();
    }
    bool rename(const std::string& name) override
    {
        const auto key = record();
        if (!key || !state_->refuseReadOnly())
            return false;
        ByteView view(*state_->hive->cells().cell(offset_));
        const std::uint32_t parent = view.u32(Layout::Key::kParent);
        if (!view.ok() || (key->flags & Layout::Key::kFlagRoot)) {
            Error::set(Error::Invalid, "the root key has no name to change");
            return state_->fail();
        }
        const auto moved = state_->hive->renameKey(parent, offset_, name);
        if (!moved)
            return state_->fail();
        const std::uint32_t from = offset_;
        for (auto* other : state_->keys)
            other->move(from, *moved);
        for (auto* value : state_->values)
            value->moveKey(from, *moved);
        return true;
    }
    Ref<KeyNode> subkey(const std::string& name) override
    {
        if (!record())
            return nullptr;
        const auto child = state_->hive->findSubkey(offset_, name);
        if (!child) {
            state_->fail();
            return nullptr;
        }
        return Ref<KeyNode>(new KeyNodeImpl(state_, *child));
    }
    Ref<KeyNode> find(const std::string& path) override
    {
        std::string normal = path;
        std::replace(normal.begin(), normal.end(), '/', '\\');
        Ref<KeyNode> key(this);
        for (const auto& part : StringUtil::split(normal, "\\")) {
            if (part.empty())
                continue;
            key = key->subkey(part);
            if (!key)
                return nullptr;
        }
        return key;
    }
    Ref<ValueNode> value(const std::string& name) override
    {
        if (!record())
            return nullptr;
        const auto value = state_->hive->findValue(offset_, name);
        if (!value) {
            state_->fail();
            return nullptr;
        }
        return Ref<ValueNode>(new ValueNodeImpl(state_, offset_, *value));
    }

    const std::shared_ptr<HiveState>& state() const { return state_; }

private:
    std::shared_ptr<HiveState> state_;
    std::uint32_t offset_;
    bool dead_ = false;
};

void HiveState::forgetReleased()
{
    for (const std::uint32_t offset : hive->takeReleased()) {
        for (auto* key : keys)
            if (key->offset() == offset)
                key->kill();
        for (auto* value : values)
            if (value->offset() == offset)
                value->kill();
    }
}

namespace {

// Iterates over a snapshot of offsets; each one is checked again when its turn comes, so the
// element just returned may be deleted (and others added) meanwhile.
class KeyIteratorImpl final : public KeyIterator {
public:
    KeyIteratorImpl(Ref<KeyNodeImpl> parent, std::vector<std::uint32_t> children)
        : parent_(std::move(parent)), children_(std::move(children))
    {
    }
    Ref<KeyNode> next() override
    {
        const auto& state = parent_->state();
        while (next_ < children_.size()) {
            const std::uint32_t offset = children_[next_++];
            const auto cell = state->hive->cells().cell(offset);
            if (!cell || cell->size() < Layout::Key::kName || (*cell)[0] != 'n' || (*cell)[1] != 'k')
                continue;
            ByteView view(*cell);
            if (view.u32(Layout::Key::kParent) == parent_->offset() && view.ok())
                return Ref<KeyNode>(new KeyNodeImpl(state, offset));
        }
        Error::set(Error::None);
        return nullptr;
    }

private:
    Ref<KeyNodeImpl> parent_;
    std::vector<std::uint32_t> children_;
    std::size_t next_ = 0;
};

class ValueIteratorImpl final : public ValueIterator {
public:
    ValueIteratorImpl(Ref<KeyNodeImpl> key, std::vector<std::uint32_t> values)
        : key_(std::move(key)), values_(std::move(values))
    {
    }
    Ref<ValueNode> next() override
    {
        const auto& state = key_->state();
        const auto record = key_->record();
        const auto current = record ? readValueList(state->hive->cells(), *record) : std::nullopt;
        if (!current)
            return nullptr;
        while (next_ < values_.size()) {
            const std::uint32_t offset = values_[next_++];
            if (std::find(current->begin(), current->end(), offset) != current->end())
                return Ref<ValueNode>(new ValueNodeImpl(state, key_->offset(), offset));
        }
        Error::set(Error::None);
        return nullptr;
    }

private:
    Ref<KeyNodeImpl> key_;
    std::vector<std::uint32_t> values_;
    std::size_t next_ = 0;
};

} // namespace

Ref<KeyIterator> KeyNodeImpl::subkeys()
{
    const auto key = record();
    auto children = key ? readSubkeys(state_->hive->cells(), *key) : std::nullopt;
    if (!children) {
        state_->fail();
        return nullptr;
    }
    return Ref<KeyIterator>(new KeyIteratorImpl(Ref<KeyNodeImpl>(this), std::move(*children)));
}

Ref<ValueIterator> KeyNodeImpl::values()
{
    const auto key = record();
    auto list = key ? readValueList(state_->hive->cells(), *key) : std::nullopt;
    if (!list) {
        state_->fail();
        return nullptr;
    }
    return Ref<ValueIterator>(new ValueIteratorImpl(Ref<KeyNodeImpl>(this), std::move(*list)));
}

LogChannel HiveFile::channel()
{
    static const LogChannel channel = SysLogFilter::reg("Hive");
    return channel;
}

HiveFile::HiveFile(std::shared_ptr<HiveState> state) : state_(std::move(state)) {}

HiveFile::~HiveFile() = default;

namespace {

std::optional<std::vector<std::uint8_t>> readWhole(File& file)
{
    const std::uint64_t size = file.size();
    if (size > 0x80000000ull) {
        Error::set(Error::TooLarge, "the file is larger than any hive");
        return std::nullopt;
    }
    auto bytes = readWholeFile(file);
    if (!bytes && Error::get() == Error::None)
        Error::set(Error::Io, "the file could not be read whole");
    return bytes;
}

} // namespace

Ref<HiveFile> HiveFile::open(Ref<File> stream, std::uint32_t, std::uint32_t, const LogAccess* logs, Access access)
{
    if (!stream) {
        Error::set(Error::Invalid, "no file to open as a hive");
        return nullptr;
    }
    auto state = std::make_shared<HiveState>();
    state->files.primary = stream;
    auto file = readWhole(*stream);
    if (!file)
        return nullptr;
    static const char* const kSuffixes[] = {".LOG1", ".LOG2", ".LOG"};
    std::vector<TransactionLog> found;
    std::vector<std::vector<std::uint8_t>> oldLog;
    for (std::size_t i = 0; i < 3; ++i) {
        std::string name = logs ? logs->baseName + kSuffixes[i] : std::string();
        Ref<File> log;
        if (logs && i < logs->names.size() && !logs->names[i].empty() && logs->open) {
            name = logs->names[i];
            log = logs->open(name);
        }
        std::vector<std::uint8_t> bytes;
        if (log) {
            auto read = readWhole(*log);
            if (!read)
                return nullptr;
            bytes = std::move(*read);
        }
        if (i < 2) {
            auto& slot = state->files.logs[i];
            slot.name = name;
            slot.file = log;
            slot.bytes = std::move(bytes);
            slot.log = TransactionLog::read(slot.bytes);
            found.push_back(slot.log);
        } else {
            state->logBytes.push_back(std::move(bytes));
            found.push_back(TransactionLog::read(state->logBytes.back()));
        }
    }
    if (logs && logs->create)
        state->files.createLog = logs->create;
    state->writable = access == Access::ReadWrite;
    // A failed replay leaves the bytes as they were: the primary is then read as it is, and
    // nothing may be written over a hive that could not be finished.
    auto replay = recover(*file, found);
    if (!replay) {
        LogMessage(channel(), LogWarning) << "The hive is opened read-only: " << Error::text();
        state->writable = false;
    } else if (replay->replayed) {
        state->pendingReplay = PendingReplay::of(*replay, *file);
    }
    state->hive = Hive::load(std::move(*file));
    if (!state->hive)
        return nullptr;
    if (state->hive->base().binsSize != state->hive->cells().bytes().size())
        return nullptr;
    return Ref<HiveFile>(new HiveFile(std::move(state)));
}

Ref<KeyNode> HiveFile::root()
{
    if (!state_->hive->root()) {
        state_->fail();
        return nullptr;
    }
    return Ref<KeyNode>(new KeyNodeImpl(state_, state_->hive->base().rootCell));
}

bool HiveFile::flush()
{
    const bool edited = !state_->hive->cells().changedPages().empty();
    // A replay that a read-only open made stays in memory: it is not the caller's change.
    if (!edited && (!state_->pendingReplay || !state_->writable))
        return true;
    if (!state_->refuseReadOnly())
        return false;
    if (!Platform::Hive::flush(*state_->hive, state_->files, state_->pendingReplay))
        return state_->fail();
    return true;
}

bool HiveFile::writable() const
{
    return state_->writable;
}

bool HiveFile::recovered() const
{
    return state_->pendingReplay.has_value();
}

std::uint32_t HiveFile::lastError() const
{
    return state_->lastError;
}

bool HiveFile::exportReg(const std::string& path, std::ostream& out)
{
    std::string normal = path;
    std::replace(normal.begin(), normal.end(), '/', '\\');
    const auto key = state_->hive->find(normal);
    if (!key)
        return state_->fail();
    std::string shown;
    for (const auto& part : StringUtil::split(normal, "\\"))
        if (!part.empty())
            shown += "\\" + part;
    return state_->hive->exportTree(*key, shown, out) || state_->fail();
}

namespace Utils {

namespace {
std::string asciiUpper(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return char(std::toupper(c)); });
    return text;
}
} // namespace

Ref<HiveFile> openHive(const Ref<Filesys>& fs, const std::string& path, bool writable, std::uint32_t codepage,
                       std::uint32_t flags)
{
    if (!fs) {
        Error::set(Error::Invalid, "no file system");
        return nullptr;
    }
    const bool readWrite = writable && !fs->readOnly();
    const std::uint32_t openFlags = readWrite ? OpenFlags::ReadWriteExisting : OpenFlags::Read;
    auto primary = fs->openFile(path, openFlags);
    if (!primary)
        return nullptr;
    const auto slash = path.rfind('/');
    const std::string directory = slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
    const std::string folder = slash == std::string::npos ? "" : path.substr(0, slash);
    const std::string baseName = slash == std::string::npos ? path : path.substr(slash + 1);
    LogAccess logs;
    logs.baseName = baseName;
    logs.names.resize(3);
    static const char* const kSuffixes[] = {".LOG1", ".LOG2", ".LOG"};
    if (auto listing = fs->openDirectory(directory)) {
        for (DirectoryEntry entry; listing->next(entry);)
            for (std::size_t i = 0; i < 3; ++i)
                if (entry.type != 1 && asciiUpper(entry.name) == asciiUpper(baseName + kSuffixes[i]))
                    logs.names[i] = entry.name;
    }
    logs.open = [fs, folder, openFlags](const std::string& name) {
        return fs->openFile(folder + "/" + name, openFlags);
    };
    if (readWrite)
        logs.create = [fs, folder](const std::string& name) {
            return fs->openFile(folder + "/" + name, OpenFlags::CreateOrTruncate);
        };
    return HiveFile::open(primary, flags, codepage, &logs, readWrite ? Access::ReadWrite : Access::ReadOnly);
}

} // namespace Utils

} // namespace Platform::Hive

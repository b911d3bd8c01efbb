// Creating, deleting and renaming keys: the nk cells, their place in the parent's sorted subkey
// list, and the security cells they share.

#include "platform/core/bytes.h"
#include "platform/core/error.h"
#include "platform/hive/hive.h"
#include "platform/hive/layout.h"
#include "platform/hive/names.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace Platform::Hive {

namespace {

namespace K = Layout::Key;
namespace S = Layout::Security;

constexpr unsigned kMaxKeyDepth = 512;
constexpr std::size_t kLeafMax = 1012; // larger lists are split under an ri list
constexpr std::size_t kLeafSplit = 512;

std::uint64_t fileTimeNow()
{
    const auto since1970 =
        std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch());
    return std::uint64_t(since1970.count() / 100) + 116444736000000000ull;
}

bool fail(std::uint32_t code, const std::string& what)
{
    Error::set(code, what);
    return false;
}

// Writes name into the nk cell data and sets its length and compressed flag.
void putKeyName(std::span<std::uint8_t> nk, const StoredName& name)
{
    ByteWriter writer(nk);
    ByteView view(nk);
    const std::uint16_t flags = view.u16(K::kFlags);
    writer.u16(K::kFlags,
               std::uint16_t(name.compressed ? flags | K::kFlagCompressedName : flags & ~K::kFlagCompressedName));
    writer.u16(K::kNameLength, std::uint16_t(name.bytes.size()));
    writer.bytes(K::kName, name.bytes);
    (void)view.ok();
    (void)writer.ok(); // the caller sized the cell for the name
}

// Raises the low 16 bits of a maximum-length field, keeping the flags above them.
void raiseMaximum(std::span<std::uint8_t> nk, std::size_t field, std::uint32_t length, bool lowHalf)
{
    ByteView view(nk);
    const std::uint32_t old = view.u32(field);
    (void)view.ok();
    const std::uint32_t current = lowHalf ? old & 0xFFFF : old;
    if (length <= current)
        return;
    ByteWriter writer(nk);
    writer.u32(field, lowHalf ? (old & 0xFFFF0000) | (length & 0xFFFF) : length);
    (void)writer.ok();
}

} // namespace

std::optional<std::vector<std::uint32_t>> Hive::subkeysOf(std::uint32_t key) const
{
    const auto record = readKey(cells_, key);
    if (!record)
        return std::nullopt;
    return readSubkeys(cells_, *record);
}

std::optional<std::uint32_t> Hive::findSubkey(std::uint32_t key, const std::string& name) const
{
    return findNamed(cells_, subkeysOf(key), readKey, name);
}

// Replaces the key's subkey list by one of the given keys, sorted as Windows sorts them: lf
// elements with name hints on hives before 1.5, lh elements with name hashes from 1.5 on.
bool Hive::writeSubkeys(std::uint32_t key, std::vector<std::uint32_t> subkeys)
{
    struct Element {
        std::u16string upper;
        std::uint32_t offset;
        std::uint32_t hashOrHint;
    };
    const bool hashed = base_.minorVersion >= 5;
    std::vector<Element> sorted;
    for (const std::uint32_t offset : subkeys) {
        const auto child = readKey(cells_, offset);
        if (!child)
            return false;
        sorted.push_back({upperUnits(child->name), offset, hashed ? nameHash(child->name) : nameHint(child->name)});
    }
    std::sort(sorted.begin(), sorted.end(), [](const Element& a, const Element& b) { return a.upper < b.upper; });
    const auto nk = readKey(cells_, key);
    if (!nk)
        return false;
    const std::uint32_t oldList = nk->subkeyCount ? nk->subkeyList : Layout::kNoCell;
    std::vector<std::uint32_t> oldLeaves;
    if (oldList != Layout::kNoCell) {
        const auto list = cells_.cell(oldList);
        if (!list)
            return false;
        if ((*list)[0] == 'r' && (*list)[1] == 'i') {
            ByteView view(*list);
            for (std::size_t i = 0; i < view.u16(Layout::List::kCount); ++i)
                oldLeaves.push_back(view.u32(Layout::List::kElements + 4 * i));
            (void)view.ok(); // read and checked when the subkeys were listed
        }
    }
    auto writeLeaf = [&](std::size_t first, std::size_t count) -> std::optional<std::uint32_t> {
        const auto cell = cells_.allocate(Layout::List::kElements + 8 * count);
        if (!cell)
            return std::nullopt;
        auto data = cells_.writable(*cell);
        ByteWriter writer(data);
        writer.bytes(0, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>(hashed ? "lh" : "lf"), 2));
        writer.u16(Layout::List::kCount, std::uint16_t(count));
        for (std::size_t i = 0; i < count; ++i) {
            writer.u32(Layout::List::kElements + 8 * i, sorted[first + i].offset);
            writer.u32(Layout::List::kElements + 8 * i + 4, sorted[first + i].hashOrHint);
        }
        (void)writer.ok(); // the cell was sized for the list
        return cell;
    };
    std::uint32_t list = Layout::kNoCell;
    if (sorted.size() > kLeafMax) {
        const std::size_t leaves = (sorted.size() + kLeafSplit - 1) / kLeafSplit;
        const auto ri = cells_.allocate(Layout::List::kElements + 4 * leaves);
        if (!ri)
            return false;
        std::vector<std::uint32_t> leafCells;
        for (std::size_t first = 0; first < sorted.size(); first += kLeafSplit) {
            const auto leaf = writeLeaf(first, std::min(kLeafSplit, sorted.size() - first));
            if (!leaf)
                return false;
            leafCells.push_back(*leaf);
        }
        ByteWriter writer(cells_.writable(*ri));
        writer.bytes(0, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>("ri"), 2));
        writer.u16(Layout::List::kCount, std::uint16_t(leaves));
        for (std::size_t i = 0; i < leaves; ++i)
            writer.u32(Layout::List::kElements + 4 * i, leafCells[i]);
        (void)writer.ok();
        list = *ri;
    } else if (!sorted.empty()) {
        const auto leaf = writeLeaf(0, sorted.size());
        if (!leaf)
            return false;
        list = *leaf;
    }
    ByteWriter writer(cells_.writable(key));
    writer.u32(K::kSubkeyCount, std::uint32_t(sorted.size()));
    writer.u32(K::kSubkeyList, list);
    (void)writer.ok();
    for (const std::uint32_t leaf : oldLeaves)
        cells_.release(leaf);
    if (oldList != Layout::kNoCell)
        cells_.release(oldList);
    return true;
}

std::optional<std::uint32_t> Hive::createKey(std::uint32_t parent, const std::string& name)
{
    if (name.empty() || name.find('\\') != std::string::npos) {
        fail(Error::Invalid, "a key name is not empty and holds no backslash");
        return std::nullopt;
    }
    if (const auto existing = findSubkey(parent, name))
        return existing;
    if (Error::get() != Error::PathNotFound)
        return std::nullopt;
    const auto parentKey = readKey(cells_, parent);
    auto subkeys = subkeysOf(parent);
    if (!parentKey || !subkeys)
        return std::nullopt;
    const StoredName stored = storedName(name);
    if (stored.bytes.size() > 0xFFFF) {
        fail(Error::Invalid, "the key name is too long");
        return std::nullopt;
    }
    if (parentKey->security != Layout::kNoCell && !cells_.record(parentKey->security, "sk", S::kDescriptor))
        return std::nullopt;
    const auto cell = cells_.allocate(K::kName + stored.bytes.size());
    if (!cell)
        return std::nullopt;
    {
        auto nk = cells_.writable(*cell);
        ByteWriter writer(nk);
        writer.bytes(0, std::span<const std::uint8_t>(reinterpret_cast<const std::uint8_t*>("nk"), 2));
        writer.u64(K::kTimestamp, fileTimeNow());
        writer.u32(K::kParent, parent);
        writer.u32(K::kSubkeyList, Layout::kNoCell);
        writer.u32(K::kVolatileSubkeyList, Layout::kNoCell);
        writer.u32(K::kValueList, Layout::kNoCell);
        writer.u32(K::kSecurity, parentKey->security);
        writer.u32(K::kClass, Layout::kNoCell);
        (void)writer.ok();
        putKeyName(nk, stored);
    }
    if (parentKey->security != Layout::kNoCell) {
        auto sk = cells_.writable(parentKey->security);
        ByteView view(sk);
        const std::uint32_t references = view.u32(S::kReferences);
        (void)view.ok();
        ByteWriter writer(sk);
        writer.u32(S::kReferences, references + 1);
        (void)writer.ok();
    }
    subkeys->push_back(*cell);
    if (!writeSubkeys(parent, std::move(*subkeys)))
        return std::nullopt;
    raiseMaximum(cells_.writable(parent), K::kMaxSubkeyNameLength, std::uint32_t(2 * stored.units), true);
    return cell;
}

bool Hive::releaseSecurity(std::uint32_t security)
{
    if (security == Layout::kNoCell)
        return true;
    auto sk = cells_.record(security, "sk", S::kDescriptor);
    if (!sk)
        return false;
    ByteView view(*sk);
    const std::uint32_t references = view.u32(S::kReferences);
    const std::uint32_t next = view.u32(S::kNext);
    const std::uint32_t previous = view.u32(S::kPrevious);
    (void)view.ok();
    if (references > 1 || next == security) {
        ByteWriter writer(cells_.writable(security));
        writer.u32(S::kReferences, references ? references - 1 : 0);
        return writer.ok();
    }
    // The last key using it is gone: out of the ring of security cells, then freed.
    if (!cells_.record(next, "sk", S::kDescriptor) || !cells_.record(previous, "sk", S::kDescriptor))
        return false;
    ByteWriter(cells_.writable(previous)).u32(S::kNext, next);
    ByteWriter(cells_.writable(next)).u32(S::kPrevious, previous);
    cells_.release(security);
    return true;
}

// Everything below the key and the key's own cells; the parent's list is the caller's.
bool Hive::deleteTree(std::uint32_t key, unsigned depth)
{
    if (depth > kMaxKeyDepth)
        return fail(Error::Corrupt, "the key tree is deeper than 512 levels: a subkey list leads back up");
    const auto record = readKey(cells_, key);
    const auto subkeys = record ? readSubkeys(cells_, *record) : std::nullopt;
    const auto values = record ? readValueList(cells_, *record) : std::nullopt;
    if (!subkeys || !values)
        return false;
    for (const std::uint32_t child : *subkeys)
        if (!deleteTree(child, depth + 1))
            return false;
    for (const std::uint32_t value : *values) {
        const auto vk = readValue(cells_, value);
        if (!vk)
            return false;
        releaseData(*vk);
        cells_.release(value);
        released_.push_back(value);
    }
    if (record->valueCount)
        cells_.release(record->valueList);
    if (!writeSubkeys(key, {}))
        return false;
    if (record->classLength && record->classCell != Layout::kNoCell && cells_.cell(record->classCell))
        cells_.release(record->classCell);
    if (!releaseSecurity(record->security))
        return false;
    cells_.release(key);
    released_.push_back(key);
    return true;
}

bool Hive::deleteKey(std::uint32_t parent, std::uint32_t key)
{
    auto subkeys = subkeysOf(parent);
    if (!subkeys)
        return false;
    const auto at = std::find(subkeys->begin(), subkeys->end(), key);
    if (at == subkeys->end())
        return fail(Error::PathNotFound, "the key is no subkey of that parent");
    subkeys->erase(at);
    return writeSubkeys(parent, std::move(*subkeys)) && deleteTree(key, 0);
}

std::optional<std::uint32_t> Hive::renameKey(std::uint32_t parent, std::uint32_t key, const std::string& name)
{
    if (name.empty() || name.find('\\') != std::string::npos) {
        fail(Error::Invalid, "a key name is not empty and holds no backslash");
        return std::nullopt;
    }
    auto subkeys = subkeysOf(parent);
    const auto record = readKey(cells_, key);
    if (!subkeys || !record)
        return std::nullopt;
    if (std::find(subkeys->begin(), subkeys->end(), key) == subkeys->end()) {
        fail(Error::PathNotFound, "the key is no subkey of that parent");
        return std::nullopt;
    }
    if (const auto other = findSubkey(parent, name); other && *other != key) {
        fail(Error::Exists, "a key named \"" + name + "\" exists already");
        return std::nullopt;
    }
    const StoredName stored = storedName(name);
    std::uint32_t target = key;
    if (K::kName + stored.bytes.size() > cells_.cell(key)->size()) {
        // The name does not fit: the record moves, and its subkeys follow it.
        const auto children = readSubkeys(cells_, *record);
        const auto moved = cells_.allocate(K::kName + stored.bytes.size());
        if (!children || !moved)
            return std::nullopt;
        const auto old = cells_.cell(key);
        auto copy = cells_.writable(*moved);
        std::memcpy(copy.data(), old->data(), K::kName);
        for (const std::uint32_t child : *children) {
            ByteWriter writer(cells_.writable(child));
            writer.u32(K::kParent, *moved);
            (void)writer.ok();
        }
        std::replace(subkeys->begin(), subkeys->end(), key, *moved);
        target = *moved;
    }
    putKeyName(cells_.writable(target), stored);
    if (!writeSubkeys(parent, std::move(*subkeys)))
        return std::nullopt;
    if (target != key)
        cells_.release(key);
    raiseMaximum(cells_.writable(parent), K::kMaxSubkeyNameLength, std::uint32_t(2 * stored.units), true);
    return target;
}

} // namespace Platform::Hive

// Registry hives: open (bytes after the hive bins serve as its first log), walk, edit, flush, and
// open what the flush wrote, which must hold the edits.

#include "fuzz/fuzz_input.h"
#include "platform/core/bytes.h"
#include "platform/fs/memory_file.h"
#include "platform/hive/hive_file.h"

#include <cstdlib>
#include <sstream>

namespace {

using namespace Platform;
using namespace Platform::Hive;

Ref<HiveFile> openHive(std::vector<std::uint8_t> primary, std::vector<std::uint8_t> log, Ref<MemoryFile>& file)
{
    file = makeRef<MemoryFile>(std::move(primary));
    auto logFile = makeRef<MemoryFile>(std::move(log));
    LogAccess logs;
    logs.baseName = "hive";
    logs.names = {"hive.LOG1", "", ""};
    logs.open = [logFile](const std::string&) { return Ref<File>(logFile); };
    logs.create = [](const std::string&) { return Ref<File>(makeRef<MemoryFile>()); };
    return HiveFile::open(Ref<File>(file), 32, 0, &logs);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::quietLogs();
    std::vector<std::uint8_t> primary(data, data + size), log;
    if (size >= 4096) {
        ByteView view({data, size});
        const std::uint64_t end = 4096 + std::uint64_t(view.u32(40));
        if (view.ok() && end < size) {
            log.assign(data + end, data + size);
            primary.resize(end);
        }
    }
    Ref<MemoryFile> file;
    const auto hive = openHive(primary, log, file);
    if (!hive)
        return 0;
    std::ostringstream out;
    hive->exportReg("", out);
    const auto root = hive->root();
    if (!root || !hive->writable())
        return 0;
    const auto key = root->createKey("fuzz");
    if (!key || !key->createValue("v", 3) || !key->value("v")->setData(3, std::vector<std::uint8_t>(20000, 7)))
        return 0;
    if (const auto subkeys = root->subkeys())
        if (const auto first = subkeys->next(); first && first->name() != "fuzz")
            root->removeKey(first);
    key->rename("fuzzed key");
    if (!hive->flush())
        return 0;
    // What the flush wrote must open again, with the edits in it.
    Ref<MemoryFile> again;
    const auto reopened = openHive(file->bytes(), {}, again);
    if (!reopened || !reopened->root() || !reopened->root()->subkey("fuzzed key"))
        std::abort();
    return 0;
}

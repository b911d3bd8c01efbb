// Setting values in the real 11 MiB SYSTEM hive: open it, create 20 keys with one value each, and
// write the change. Ours (log-first, changed pages only) beside hivexsh doing the same edits and
// committing (it writes the whole file), as ratios of time and of bytes written in one run.
// hivexsh's bytes are counted from its write system calls under strace.

#include "platform/fs/memory_file.h"
#include "platform/hive/hive_file.h"
#include "platform/log/log.h"
#include "tests/support/command.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

using Clock = std::chrono::steady_clock;
using namespace Platform;
using namespace Platform::Hive;

constexpr int kValues = 20;

std::string unpackSystem(const TestSupport::TempDir& dir, const std::string& as)
{
    const std::string path = dir.file(as);
    TestSupport::run({"sh", "-c", "xz -dc '" SHARED_DIR "/fixtures/windows-hives/SYSTEM.xz' > '" + path + "'"});
    return path;
}

void edit(HiveFile& hive)
{
    const auto services = hive.root()->find("ControlSet001/Services");
    for (int i = 0; i < kValues; ++i)
        services->createKey("Bench" + std::to_string(i))->createValue("Start", 4)->setNumber(std::uint64_t(i));
}

// hivexsh's script for the same edits.
std::string hivexScript()
{
    std::ostringstream script;
    script << "cd \\ControlSet001\\Services\n";
    for (int i = 0; i < kValues; ++i)
        script << "add Bench" << i << "\ncd Bench" << i << "\nsetval 1\nStart\ndword:0x" << i << "\ncd ..\n";
    script << "commit\n";
    return script.str();
}

std::uint64_t bytesWrittenBy(const std::string& traceFile)
{
    std::ifstream in(traceFile);
    std::uint64_t total = 0;
    for (std::string line; std::getline(in, line);) {
        const auto equals = line.rfind(" = ");
        if (equals != std::string::npos &&
            (line.find("write(") != std::string::npos || line.find("pwrite64(") != std::string::npos))
            total += std::strtoull(line.c_str() + equals + 3, nullptr, 10);
    }
    return total;
}

void BM_Hive_Set20Values_OursVsHivexsh(benchmark::State& state)
{
    TestSupport::TempDir dir;
    const std::string original = unpackSystem(dir, "original");
    const auto hiveSize = std::filesystem::file_size(original);
    std::ofstream(dir.file("script")) << hivexScript();
    double ours = 0, theirs = 0;
    std::uint64_t ourBytes = 0, theirBytes = 0;
    for (auto _ : state) {
        std::filesystem::create_directory(dir.file("ours"));
        std::filesystem::copy_file(original, dir.file("ours/SYSTEM"),
                                   std::filesystem::copy_options::overwrite_existing);
        std::filesystem::copy_file(original, dir.file("theirs"), std::filesystem::copy_options::overwrite_existing);
        const auto start = Clock::now();
        {
            const auto hive =
                Utils::openHive(Filesys::create(dir.file("ours"), 0, Access::ReadWrite), "/SYSTEM", true, 0, 32);
            edit(*hive);
            benchmark::DoNotOptimize(hive->flush());
        }
        const auto middle = Clock::now();
        TestSupport::run({"sh", "-c", "hivexsh -w '" + dir.file("theirs") + "' < '" + dir.file("script") + "'"});
        const auto end = Clock::now();
        ours += std::chrono::duration<double>(middle - start).count();
        theirs += std::chrono::duration<double>(end - middle).count();
        state.SetIterationTime(std::chrono::duration<double>(middle - start).count());

        // Bytes: ours counted by in-memory files, theirs from the system calls.
        std::ifstream in(original, std::ios::binary);
        std::vector<std::uint8_t> bytes(hiveSize);
        in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(hiveSize));
        const auto primary = makeRef<MemoryFile>(std::move(bytes));
        auto log = makeRef<MemoryFile>();
        LogAccess logs;
        logs.baseName = "SYSTEM";
        logs.names = {"", "", ""};
        logs.create = [log](const std::string&) { return Ref<File>(log); };
        const auto counted = HiveFile::open(Ref<File>(primary), 32, 0, &logs);
        edit(*counted);
        counted->flush();
        ourBytes = primary->written() + log->written();
        std::filesystem::copy_file(original, dir.file("theirs"), std::filesystem::copy_options::overwrite_existing);
        TestSupport::run({"sh", "-c",
                          "strace -f -qq -e trace=write,pwrite64 -o '" + dir.file("trace") + "' hivexsh -w '" +
                              dir.file("theirs") + "' < '" + dir.file("script") + "' > /dev/null"});
        theirBytes = bytesWrittenBy(dir.file("trace"));
    }
    state.counters["ours_s"] = ours / double(state.iterations());
    state.counters["hivexsh_s"] = theirs / double(state.iterations());
    state.counters["hivexsh_over_ours_time"] = theirs / ours;
    state.counters["our_bytes"] = double(ourBytes);
    state.counters["hivexsh_bytes"] = double(theirBytes);
    state.counters["our_bytes_pct_of_hive"] = 100.0 * double(ourBytes) / double(hiveSize);
}

BENCHMARK(BM_Hive_Set20Values_OursVsHivexsh)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    Platform::SysLogFilter::setLevel(5);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

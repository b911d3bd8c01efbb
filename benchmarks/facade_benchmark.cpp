// Rewriting a 1 MiB file inside each file-system backend, against the family's own tools doing
// the same on the same kind of image (mtools, debugfs, ntfscp), as ratios.

#include "platform/fs/filesys.h"
#include "platform/log/log.h"
#include "platform/storage/file_storage.h"
#include "tests/support/command.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>

namespace {

using Clock = std::chrono::steady_clock;

double secondsOf(const std::function<void()>& work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

struct Backend {
    const char* name;
    std::vector<std::string> mkfs;
    // The family's tool writing local over /data.bin on image.
    std::function<void(const std::string& image, const std::string& local)> theirs;
};

void rewriteOurs(const std::string& image, const std::vector<char>& data)
{
    auto storage = Platform::FileStorage::open(image, Platform::FileStorage::Access::ReadWrite);
    auto fs = Platform::Filesys::create(storage, 0, Platform::Access::ReadWrite);
    auto file = fs->openFile("/data.bin", Platform::OpenFlags::CreateOrTruncate);
    file->write(data.data(), data.size());
    file->flush();
    fs->flush();
}

void runBackend(benchmark::State& state, const Backend& backend)
{
    TestSupport::TempDir dir;
    const std::string ours = dir.file("ours.img"), theirs = dir.file("theirs.img"), local = dir.file("data.bin");
    for (const auto& image : {ours, theirs}) {
        TestSupport::createImage(image, 64 << 20);
        auto mkfs = backend.mkfs;
        mkfs.push_back(image);
        TestSupport::run(mkfs);
    }
    const std::vector<char> data(1 << 20, 'x');
    std::ofstream(local, std::ios::binary).write(data.data(), std::streamsize(data.size()));
    double oursTotal = 0, theirsTotal = 0;
    for (auto _ : state) {
        const double o = secondsOf([&] { rewriteOurs(ours, data); });
        theirsTotal += secondsOf([&] { backend.theirs(theirs, local); });
        oursTotal += o;
        state.SetIterationTime(o);
    }
    state.counters["ours_ms"] = 1000 * oursTotal / double(state.iterations());
    state.counters["tool_ms"] = 1000 * theirsTotal / double(state.iterations());
    state.counters["tool_over_ours"] = theirsTotal / oursTotal;
}

const Backend kFat{
    "fat32", {"mkfs.fat", "-F", "32", "-s", "1"}, [](const std::string& image, const std::string& local) {
        TestSupport::run({"mcopy", "-o", "-i", image, local, "::/data.bin"});
    }};
const Backend kExt{"ext4", {"mkfs.ext4", "-q", "-F"}, [](const std::string& image, const std::string& local) {
                       TestSupport::run({"debugfs", "-w", "-R", "rm /data.bin", image});
                       TestSupport::run({"debugfs", "-w", "-R", "write " + local + " data.bin", image});
                   }};
const Backend kNtfs{"ntfs", {"mkntfs", "-F", "-f", "-q"}, [](const std::string& image, const std::string& local) {
                        TestSupport::run({"ntfscp", "-f", image, local, "/data.bin"});
                    }};

void BM_Rewrite1MiB_Fat32(benchmark::State& state)
{
    runBackend(state, kFat);
}
void BM_Rewrite1MiB_Ext4(benchmark::State& state)
{
    runBackend(state, kExt);
}
void BM_Rewrite1MiB_Ntfs(benchmark::State& state)
{
    runBackend(state, kNtfs);
}

// A file written and read back in the 16 KiB blocks file copies use, on FAT32 with 512-byte
// clusters: the cost per block must not grow with the file.
void BM_Fat32BlockwiseCopy(benchmark::State& state)
{
    TestSupport::TempDir dir;
    const std::string image = dir.file("blocks.img");
    TestSupport::createImage(image, 256 << 20);
    TestSupport::run({"mkfs.fat", "-F", "32", "-s", "1", image});
    const std::uint64_t bytes = std::uint64_t(state.range(0)) << 20;
    std::vector<char> block(16 << 10, 'x');
    for (auto _ : state) {
        auto storage = Platform::FileStorage::open(image, Platform::FileStorage::Access::ReadWrite);
        auto fs = Platform::Filesys::create(storage, 0, Platform::Access::ReadWrite);
        auto file = fs->openFile("/data.bin", Platform::OpenFlags::CreateOrTruncate);
        for (std::uint64_t done = 0; done < bytes; done += block.size())
            file->write(block.data(), block.size());
        file->seek(0);
        for (std::uint64_t done = 0; done < bytes; done += block.size())
            benchmark::DoNotOptimize(file->read(block.data(), block.size()));
        file->flush();
        fs->flush();
    }
    state.counters["blocks"] = double(2 * bytes / block.size());
}

// Where a file of range(0) MiB lies, as a boot-loader patch asks it: the file put there by the
// family's tool, the facade opened read-only, the areas listed. The cost must grow with the
// file's size at most linearly.
void runAllocation(benchmark::State& state, const Backend& backend)
{
    TestSupport::TempDir dir;
    const std::string image = dir.file("where.img"), local = dir.file("data.bin");
    TestSupport::createImage(image, 256 << 20);
    auto mkfs = backend.mkfs;
    mkfs.push_back(image);
    TestSupport::run(mkfs);
    const std::vector<char> data(std::size_t(state.range(0)) << 20, 'x');
    std::ofstream(local, std::ios::binary).write(data.data(), std::streamsize(data.size()));
    backend.theirs(image, local);
    std::size_t areas = 0;
    for (auto _ : state) {
        auto fs = Platform::Filesys::create(image, 0, Platform::Access::ReadOnly);
        const auto where = fs->openFile("/data.bin", Platform::OpenFlags::Read)->allocation();
        areas = where ? where->size() : 0;
    }
    state.counters["areas"] = double(areas);
}

void BM_Allocation_Fat32(benchmark::State& state)
{
    runAllocation(state, kFat);
}
void BM_Allocation_Ext4(benchmark::State& state)
{
    runAllocation(state, kExt);
}
void BM_Allocation_Ntfs(benchmark::State& state)
{
    runAllocation(state, kNtfs);
}

BENCHMARK(BM_Allocation_Fat32)->Arg(4)->Arg(16)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Allocation_Ext4)->Arg(4)->Arg(16)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Allocation_Ntfs)->Arg(4)->Arg(16)->Arg(64)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Fat32BlockwiseCopy)->Arg(4)->Arg(16)->Arg(64)->Iterations(2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rewrite1MiB_Fat32)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rewrite1MiB_Ext4)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rewrite1MiB_Ntfs)->UseManualTime()->Iterations(10)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    setenv("MTOOLS_SKIP_CHECK", "1", 1);
    Platform::SysLogFilter::setLevel(5);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

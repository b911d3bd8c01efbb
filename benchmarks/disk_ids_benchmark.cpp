// What the disk-id step costs: sectors read and written, and time, on a GPT disk with 128
// partitions and on a 2 TiB sparse image. The step must touch only the partition-table sectors,
// whatever the size of the disk.

#include "platform/log/log.h"
#include "platform/storage/file_storage.h"
#include "postprocessing/common/disk_ids.h"
#include "tests/support/command.h"
#include "tests/support/counting_storage.h"
#include "tests/support/keeper_builder.h"

#include <benchmark/benchmark.h>

namespace {

namespace PP = Libraries::KRO::PostProcessing;

std::string makeGpt(TestSupport::TempDir& dir, std::uint64_t bytes, int partitions)
{
    const std::string image = dir.file("disk.img");
    TestSupport::createImage(image, bytes);
    std::vector<std::string> args{"sgdisk"};
    for (int n = 1; n <= partitions; ++n)
        args.push_back("-n" + std::to_string(n) + ":0:+1M");
    args.push_back(image);
    TestSupport::run(args);
    return image;
}

void runDiskIdStep(benchmark::State& state, std::uint64_t bytes, int partitions)
{
    TestSupport::TempDir dir;
    const std::string image = makeGpt(dir, bytes, partitions);
    Platform::SysLogFilter::setLevel(5);
    std::uint64_t read = 0, written = 0;
    for (auto _ : state) {
        auto counted = Platform::makeRef<TestSupport::CountingStorage>(
            Platform::FileStorage::open(image, Platform::FileStorage::Access::ReadWrite));
        auto keeper = PP::Keeper::create();
        TestSupport::addDiskWithPartitions(*keeper, counted);
        const std::uint64_t setupReads = counted->sectorsRead;
        keeper->setEnabled(PP::StepDiskIds, true);
        keeper->setEnabled(PP::StepPartitionIds, true);
        benchmark::DoNotOptimize(PP::Common::changeDiskIds(keeper));
        read = counted->sectorsRead - setupReads;
        written = counted->sectorsWritten;
    }
    state.counters["sectors_read"] = double(read);
    state.counters["sectors_written"] = double(written);
}

void BM_DiskIds_Gpt128Partitions(benchmark::State& state)
{
    runDiskIdStep(state, 256ULL << 20, 128);
}
void BM_DiskIds_Sparse2TiB(benchmark::State& state)
{
    runDiskIdStep(state, 2ULL << 40, 4);
}

BENCHMARK(BM_DiskIds_Gpt128Partitions)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DiskIds_Sparse2TiB)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

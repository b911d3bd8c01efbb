// Rewriting a 100,000-line fstab-like file through the fstab step: the cost per line.

#include "platform/log/log.h"
#include "postprocessing/linux/fstab.h"
#include "tests/support/command.h"

#include <benchmark/benchmark.h>

#include <fstream>

namespace {

namespace PP = Libraries::KRO::PostProcessing;

void BM_Fstab_100kLines(benchmark::State& state)
{
    TestSupport::TempDir dir;
    std::filesystem::create_directories(dir.file("etc"));
    constexpr int kLines = 100000;
    std::string content;
    for (int i = 0; i < kLines; ++i)
        content += i % 2 ? "UUID=0a1b-2c3d /mnt/" + std::to_string(i) + " ext4 defaults 0 2\n"
                         : "# a comment line that names nothing " + std::to_string(i) + "\n";
    auto keeper = PP::Keeper::create();
    const PP::u64 disk = keeper->addEntry(PP::KindDisk, {}, {}, 0, 0);
    const PP::u64 partition =
        keeper->addEntry(PP::KindPartition, {}, {PP::Variant::string(dir.path().string())}, disk, 0);
    const std::vector<PP::u8> a{0x3d, 0x2c, 0x1b, 0x0a}, b{0x71, 0x60, 0x5f, 0x4e};
    keeper->addObjectEntry(PP::KindVolumeIdChange, PP::ByteArray::create(a), PP::ByteArray::create(b), partition, 0);
    Platform::SysLogFilter::setLevel(5);
    for (auto _ : state) {
        state.PauseTiming();
        std::ofstream(dir.file("etc/fstab"), std::ios::binary) << content;
        state.ResumeTiming();
        benchmark::DoNotOptimize(PP::Linux::adjustFstab(keeper));
    }
    // Seconds per line (shown with an SI prefix: 600n is 600 ns).
    state.counters["per_line"] =
        benchmark::Counter(double(kLines), benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}

BENCHMARK(BM_Fstab_100kLines)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();

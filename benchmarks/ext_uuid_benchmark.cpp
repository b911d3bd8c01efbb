// What a new ext4 UUID costs. On a metadata_csum file system without a checksum seed every
// metadata checksum depends on the UUID: ours against e2fsprogs' tune2fs -U on the same 8 GiB
// sparse image with 100,000 files, as a ratio. With a checksum seed only the superblocks change:
// the cost must not grow with the size of the file system.

#include "platform/fs/ext/volume.h"
#include "platform/log/log.h"
#include "platform/storage/file_storage.h"
#include "tests/support/command.h"
#include "tests/support/counting_storage.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <fstream>

namespace {

using Clock = std::chrono::steady_clock;

// A directory tree of files spread over 100 directories, made once per process.
const std::string& hundredThousandFiles(TestSupport::TempDir& dir)
{
    static std::string root;
    if (root.empty()) {
        root = dir.file("tree");
        for (int d = 0; d < 100; ++d) {
            const std::string sub = root + "/d" + std::to_string(d);
            std::filesystem::create_directories(sub);
            for (int f = 0; f < 1000; ++f)
                std::ofstream(sub + "/f" + std::to_string(f)) << f;
        }
    }
    return root;
}

std::string makeExt4(TestSupport::TempDir& dir, const std::string& name, std::uint64_t bytes,
                     std::vector<std::string> options)
{
    const std::string image = dir.file(name);
    TestSupport::createImage(image, bytes);
    std::vector<std::string> mkfs{"mkfs.ext4", "-q", "-F"};
    mkfs.insert(mkfs.end(), options.begin(), options.end());
    mkfs.push_back(image);
    TestSupport::run(mkfs);
    return image;
}

double secondsOf(const std::function<void()>& work)
{
    const auto start = Clock::now();
    work();
    return std::chrono::duration<double>(Clock::now() - start).count();
}

Platform::Ref<TestSupport::CountingStorage> openCounted(const std::string& image)
{
    return Platform::makeRef<TestSupport::CountingStorage>(
        Platform::FileStorage::open(image, Platform::FileStorage::Access::ReadWrite));
}

bool changeUuid(const Platform::Ref<TestSupport::CountingStorage>& storage)
{
    Platform::ExtVolume volume(storage, Platform::FsExt4);
    std::uint8_t uuid[16];
    for (auto& byte : uuid)
        byte = std::uint8_t(std::rand());
    return volume.setVolumeId(uuid);
}

void BM_ExtUuid_RewriteAll_OursVsTune2fs(benchmark::State& state)
{
    TestSupport::TempDir dir;
    const std::string tree = hundredThousandFiles(dir);
    const std::string ours = makeExt4(dir, "ours.img", 8ULL << 30, {"-d", tree});
    const std::string theirs = dir.file("theirs.img");
    TestSupport::run({"cp", "--sparse=always", ours, theirs});
    double oursTotal = 0, theirsTotal = 0;
    for (auto _ : state) {
        const double o = secondsOf([&] { benchmark::DoNotOptimize(changeUuid(openCounted(ours))); });
        const double t = secondsOf([&] { TestSupport::run({"tune2fs", "-U", "random", theirs}); });
        oursTotal += o;
        theirsTotal += t;
        state.SetIterationTime(o);
    }
    state.counters["ours_s"] = oursTotal / double(state.iterations());
    state.counters["tune2fs_s"] = theirsTotal / double(state.iterations());
    state.counters["tune2fs_over_ours"] = theirsTotal / oursTotal;
}

void BM_ExtUuid_WithChecksumSeed(benchmark::State& state)
{
    TestSupport::TempDir dir;
    const std::string image =
        makeExt4(dir, "seed.img", std::uint64_t(state.range(0)) << 30, {"-O", "metadata_csum_seed"});
    std::uint64_t read = 0, written = 0;
    for (auto _ : state) {
        const auto counted = openCounted(image);
        benchmark::DoNotOptimize(changeUuid(counted));
        read = counted->sectorsRead;
        written = counted->sectorsWritten;
    }
    state.counters["sectors_read"] = double(read);
    state.counters["sectors_written"] = double(written);
}

BENCHMARK(BM_ExtUuid_RewriteAll_OursVsTune2fs)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExtUuid_WithChecksumSeed)->Arg(1)->Arg(8)->Arg(64)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char** argv)
{
    Platform::SysLogFilter::setLevel(5);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
}

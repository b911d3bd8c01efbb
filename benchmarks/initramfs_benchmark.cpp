// Rewriting the resume configuration inside an initramfs image of growing size: the cost of
// unpacking, walking every member and packing again, per compression, against the compressor's
// own tool doing only the packing (zstd -9, gzip -6 on the same uncompressed archive).

#include "platform/archive/initramfs.h"
#include "tests/support/command.h"

#include <benchmark/benchmark.h>

#include <fstream>
#include <random>

namespace {

std::vector<std::uint8_t> slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

// An image of about mib MiB uncompressed: modules-like files (half text, half noise, as kernel
// modules compress about 3:1) and the resume file.
std::vector<std::uint8_t> makeImage(TestSupport::TempDir& dir, int mib, const std::string& compress)
{
    const std::string tree = dir.file("tree");
    std::filesystem::remove_all(tree);
    std::filesystem::create_directories(tree + "/conf/conf.d");
    std::filesystem::create_directories(tree + "/lib/modules");
    std::ofstream(tree + "/conf/conf.d/resume") << "RESUME=UUID=c0ffee00-1234-4abc-8def-0123456789ab\n";
    std::mt19937 random(7);
    for (int file = 0; file < mib * 4; ++file) {
        std::string bytes(256 << 10, 'm');
        for (std::size_t i = 0; i < bytes.size(); i += 2)
            bytes[i] = char(random() % 16);
        std::ofstream(tree + "/lib/modules/m" + std::to_string(file) + ".ko", std::ios::binary) << bytes;
    }
    TestSupport::runTool(
        {"sh", "-c", "cd '" + tree + "' && find . | cpio -o -H newc --quiet | " + compress + " > ../image"});
    return slurp(dir.file("image"));
}

void rewrite(benchmark::State& state, const std::string& compress)
{
    TestSupport::TempDir dir;
    const auto image = makeImage(dir, int(state.range(0)), compress);
    const auto edit = [](const std::string& name, std::string_view) -> std::optional<std::string> {
        if (name == "conf/conf.d/resume")
            return "RESUME=UUID=0badf00d-5678-4def-9abc-ba9876543210\n";
        return std::nullopt;
    };
    for (auto _ : state) {
        const auto result = Platform::rewriteInitramfs(image, edit);
        if (!result.changed)
            state.SkipWithError("nothing was rewritten");
        benchmark::DoNotOptimize(result.image.data());
    }
    state.counters["image_MiB"] = double(image.size()) / (1 << 20);
    state.SetBytesProcessed(std::int64_t(state.iterations()) * state.range(0) << 20);
}

void BM_Initramfs_Zstd(benchmark::State& state)
{
    rewrite(state, "zstd -q -9");
}
void BM_Initramfs_Gzip(benchmark::State& state)
{
    rewrite(state, "gzip -n");
}

// The packing alone, by the tool, for scale.
void BM_ZstdToolPacking(benchmark::State& state)
{
    TestSupport::TempDir dir;
    makeImage(dir, int(state.range(0)), "cat");
    for (auto _ : state)
        TestSupport::runTool({"sh", "-c", "zstd -q -9 -T1 -c '" + dir.file("image") + "' > /dev/null"});
}

BENCHMARK(BM_Initramfs_Zstd)->Arg(8)->Arg(32)->Arg(128)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Initramfs_Gzip)->Arg(8)->Arg(32)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ZstdToolPacking)->Arg(32)->Arg(128)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

BENCHMARK_MAIN();

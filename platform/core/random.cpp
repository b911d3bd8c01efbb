#include "platform/core/random.h"

#include <mutex>

namespace Platform {

namespace {

std::mutex seedLock;
std::optional<std::uint64_t> testSeed;

// splitmix64: spreads consecutive test seeds into unrelated engine seeds.
std::uint64_t mix(std::uint64_t x)
{
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

std::uint64_t nextSeed()
{
    std::lock_guard lock(seedLock);
    if (testSeed) {
        *testSeed = mix(*testSeed);
        return *testSeed;
    }
    std::random_device entropy;
    return (std::uint64_t(entropy()) << 32) | entropy();
}

} // namespace

Ref<Random> Random::create()
{
    return makeRef<Random>(nextSeed());
}

void Random::seedAll(std::optional<std::uint64_t> seed)
{
    std::lock_guard lock(seedLock);
    testSeed = seed;
}

std::uint32_t Random::upTo(std::uint32_t max) noexcept
{
    if (max == UINT32_MAX)
        return next32();
    return std::uniform_int_distribution<std::uint32_t>(0, max)(engine_);
}

} // namespace Platform

#pragma once
// Random numbers for new ids and temporary names. Tests make runs repeatable with seedAll().

#include "platform/core/ref.h"

#include <cstdint>
#include <optional>
#include <random>

namespace Platform {

class Random : public Object {
public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}

    // A new generator, seeded from the system's entropy source, or from the test seed sequence
    // when seedAll() was called.
    static Ref<Random> create();

    // REQUIRES: no other thread creates generators meanwhile. Every generator created afterwards
    // draws a repeatable sequence; nullopt returns to real entropy.
    static void seedAll(std::optional<std::uint64_t> seed);

    std::uint32_t next32() noexcept { return static_cast<std::uint32_t>(engine_() >> 32); }
    // A value from 0 to max inclusive.
    std::uint32_t upTo(std::uint32_t max) noexcept;

private:
    std::mt19937_64 engine_;
};

} // namespace Platform

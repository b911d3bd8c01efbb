#pragma once
// On-disk offsets and constants of the Linux swap header. Named once.

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Platform::Swap::Layout {

// The version-1 header, after 1024 bytes of boot-block space.
inline constexpr std::uint64_t kVersion = 1024;  // u32, in the byte order of the machine that made it
inline constexpr std::uint64_t kLastPage = 1028; // u32
inline constexpr std::uint64_t kUuid = 1036;     // 16 bytes, printed in byte order
inline constexpr std::size_t kUuidLength = 16;
inline constexpr std::size_t kSignatureLength = 10;
inline constexpr std::uint32_t kPageSizes[] = {4096, 8192, 16384, 32768, 65536};

inline constexpr std::string_view kSwapSignature = "SWAPSPACE2";
// The kernel's and user-space suspend tools' signatures over a swap area that holds an image.
inline constexpr std::string_view kHibernationSignatures[] = {"S1SUSPEND", "S2SUSPEND", "ULSUSPEND", "LINHIB0001"};

static_assert(kUuid + kUuidLength <= kPageSizes[0] - kSignatureLength, "the header fits the smallest page");

} // namespace Platform::Swap::Layout

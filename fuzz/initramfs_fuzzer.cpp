// Initramfs images: cpio archives, plain and compressed, with one member edited.

#include "fuzz/fuzz_input.h"
#include "platform/archive/initramfs.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const auto result = Platform::rewriteInitramfs({data, size}, [](const std::string& name, std::string_view content) {
        if (name.rfind("conf/", 0) != 0 || content.size() > 4096)
            return std::optional<std::string>();
        return std::optional<std::string>(std::string(content) + "RESUME=UUID=0000\n");
    });
    (void)result;
    return 0;
}

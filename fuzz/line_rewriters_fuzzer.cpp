// The fstab, GRUB, kernel command line, resume and crypttab line rewriters over arbitrary lines.

#include "fuzz/fuzz_input.h"
#include "postprocessing/bootloader/grub_config.h"
#include "postprocessing/linux/boot_references.h"
#include "postprocessing/linux/fstab.h"

namespace PP = Libraries::KRO::PostProcessing;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Fuzz::quietLogs();
    PP::Tools::IdMaps maps;
    maps.fsIds = {{"1234-abcd", "5e6f-7a8b"},
                  {"3f1e2d4c-5b6a-4978-8a9b-0c1d2e3f4a5b", "0badf00d-0000-4000-8000-000000000001"}};
    maps.partitionIds = {{"1a2b3c4d-02", "5e6f7a8b-02"}, {"1a2b3c4d-0a", "5e6f7a8b-0a"}};
    const PP::Bootloader::LinuxIdMap linuxIds{{"HD_W123-part2", "SSD_S4X-part2"}};
    for (const auto& line : Fuzz::linesOf(data, size)) {
        for (const char* prefix : {"", "UUID=", "/dev/disk/by-partuuid/"}) {
            std::string fstabPrefix = prefix;
            (void)PP::Linux::replaceFstabLine(line, maps.fsIds, fstabPrefix);
            std::string idPrefix = prefix;
            (void)PP::Tools::replaceVolumeId(line, maps.fsIds, idPrefix);
        }
        (void)PP::Bootloader::rewriteKernelLine(line, maps.fsIds, maps.partitionIds, linuxIds);
        (void)PP::Bootloader::rewriteSearchLine(line, true, maps.fsIds);
        (void)PP::Bootloader::rewriteSearchLine(line, false, maps.fsIds);
        (void)PP::Linux::rewriteResumeLine(line, maps);
        (void)PP::Linux::rewriteCrypttabLine(line, maps);
    }
    (void)PP::Linux::rewriteInitramfsMember("conf/conf.d/resume", {reinterpret_cast<const char*>(data), size}, maps);
    return 0;
}

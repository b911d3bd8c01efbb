#include "postprocessing/tools/disk_geometry.h"

#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing::Tools {

namespace {

// Reads the geometry into the outputs; returns how many of the three items were found, or -1
// when the index is no disk.
int readGeometry(const Ref<Keeper>& keeper, u64 index, u32& cylinders, u32& heads, u32& sectors)
{
    cylinders = 1023;
    heads = 254;
    sectors = 63;
    if (keeper->getKind(index) == KindDiskStorage)
        index = keeper->getId(index);
    if (keeper->getKind(index) != KindDisk) {
        LogMessage(Channels::tools(), LogError) << "Id is no disk: " << index;
        return -1;
    }
    const u64 entry = keeper->findNext(KindDiskGeometry, 0, index);
    if (entry == 0)
        return 0;
    const VariantList to = keeper->getTo(entry);
    if (to.empty())
        return 0;
    int found = 0;
    const std::pair<const char*, u32*> items[] = {{"CYL", &cylinders}, {"HEAD", &heads}, {"SEC", &sectors}};
    for (const auto& [name, output] : items) {
        const Variant* item = to.front().item(name);
        if (item && item->asInteger()) {
            *output = u32(*item->asInteger());
            ++found;
        }
    }
    return found;
}

} // namespace

bool getDiskGeometry(const Ref<Keeper>& keeper, u64 index, u32& cylinders, u32& heads, u32& sectors)
{
    return keeper && readGeometry(keeper, index, cylinders, heads, sectors) >= 0;
}

bool getCompleteDiskGeometry(const Ref<Keeper>& keeper, u64 index, u32& cylinders, u32& heads, u32& sectors)
{
    return keeper && readGeometry(keeper, index, cylinders, heads, sectors) == 3;
}

} // namespace Libraries::KRO::PostProcessing::Tools

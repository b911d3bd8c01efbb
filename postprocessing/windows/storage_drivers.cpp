#include "postprocessing/windows/storage_drivers.h"

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

constexpr DriverEntry kIde[] = {
    {"pciide", "pciide.sys", "system32\\drivers\\pciide.sys"},
    {"intelide", "intelide.sys", "system32\\drivers\\intelide.sys"},
};
constexpr DriverEntry kAhci[] = {
    {"storahci", "storahci.sys", "system32\\drivers\\storahci.sys"},
    {"msahci", "msahci.sys", "system32\\drivers\\msahci.sys"},
};
constexpr DriverEntry kNvme[] = {
    {"stornvme", "stornvme.sys", "system32\\drivers\\stornvme.sys"},
};
constexpr DriverEntry kUsb[] = {
    {"usbhub", "usbhub.sys", "system32\\DRIVERS\\usbhub.sys"},
    {"usbuhci", "usbuhci.sys", "\\SystemRoot\\system32\\DRIVERS\\usbuhci.sys"},
    {"usbohci", "usbohci.sys", "\\SystemRoot\\system32\\DRIVERS\\usbohci.sys"},
    {"usbehci", "usbehci.sys", "\\SystemRoot\\system32\\DRIVERS\\usbehci.sys"},
    {"USBSTOR", "USBSTOR.SYS", "system32\\DRIVERS\\USBSTOR.SYS"},
    {"USBPcap", "USBPcap.sys", "\\SystemRoot\\system32\\DRIVERS\\USBPcap.sys"},
};
constexpr DriverEntry kUsb3[] = {
    {"USBHUB3", "UsbHub3.sys", "\\SystemRoot\\system32\\drivers\\UsbHub3.sys"},
    {"USBXHCI", "USBXHCI.SYS", "\\SystemRoot\\system32\\drivers\\USBXHCI.SYS"},
    {"UASPStor", "uaspstor.sys", "\\SystemRoot\\system32\\drivers\\uaspstor.sys"},
};
constexpr DriverEntry kAtapi[] = {
    {"atapi", "atapi.sys", "system32\\drivers\\atapi.sys"},
};
constexpr DriverEntry kRaid[] = {
    {"iaStorV", "iaStorV.sys", "system32\\drivers\\iaStorV.sys"},
    {"nvstor", "nvstor.sys", "System32\\drivers\\nvstor.sys"},
    {"rcbottom", "rcbottom.sys", "System32\\drivers\\rcbottom.sys"},
    {"rccfg", "rccfg.sys", "System32\\drivers\\rccfg.sys"},
    {"rcraid", "rcraid.sys", "System32\\drivers\\rcraid.sys"},
};

constexpr DriverGroup kGroups[] = {
    {StepIde, kIde},   {StepAhci, kAhci},   {StepNvme, kNvme}, {StepUsb, kUsb},
    {StepUsb3, kUsb3}, {StepAtapi, kAtapi}, {StepRaid, kRaid},
};

constexpr CriticalDeviceEntry kIdeCriticalDevice = {"pci#cc_0101", "{4D36E96A-E325-11CE-BFC1-08002BE10318}", "pciide"};

} // namespace

std::span<const DriverGroup> storageDriverGroups()
{
    return kGroups;
}

const CriticalDeviceEntry& ideCriticalDevice()
{
    return kIdeCriticalDevice;
}

} // namespace Libraries::KRO::PostProcessing::Windows

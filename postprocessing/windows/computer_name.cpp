#include "postprocessing/windows/computer_name.h"

#include "postprocessing/log_channels.h"

namespace Libraries::KRO::PostProcessing::Windows {

namespace {

Platform::LogMessage error()
{
    return Platform::LogMessage(Channels::windows(), LogError);
}

} // namespace

std::optional<std::string> computerNameFor(const Keeper& keeper, u64 id)
{
    // 0 is no entry; the bound ends a chain of parents that leads back to itself.
    constexpr int kMaxDepth = 16;
    u64 owner = id;
    for (int depth = 0; owner != 0 && depth < kMaxDepth; ++depth, owner = keeper.getId(owner)) {
        const u64 setting = keeper.findNext(KindComputerName, 0, owner);
        if (setting == 0)
            continue;
        const VariantList name = keeper.getTo(setting);
        if (name.empty() || !name.front().isString() || name.front().asString()->empty())
            return std::nullopt;
        return std::string(*name.front().asString());
    }
    return std::nullopt;
}

StepResult adjustControlSetComputerName(const Ref<Keeper>& keeper, u64 id, Platform::Filesys&,
                                        const Ref<Platform::Hive::KeyNode>& controlSet)
{
    if (!controlSet) {
        error() << "Libraries::KRO::PostProcessing::adjustControlSetComputerName, No control set key";
        return StepResult::Failed;
    }
    const auto name = computerNameFor(*keeper, id);
    if (!name) {
        error() << "No value to set new computer name";
        return StepResult::Failed;
    }
    const auto control = controlSet->subkey("Control");
    if (!control) {
        error() << "Could not change computer name, no control key in control set " << controlSet->name();
        return StepResult::Failed;
    }
    const auto outer = control->subkey("ComputerName");
    if (!outer) {
        error() << "Could not find key 'ComputerName' in " << control->name();
        return StepResult::Failed;
    }
    const auto inner = outer->subkey("ComputerName");
    if (!inner) {
        error() << "Could not find key 'ComputerName' in " << outer->name();
        return StepResult::Failed;
    }
    const auto value = inner->value("ComputerName");
    if (!value) {
        error() << "Could nto find valuke 'ComputerName' in " << inner->name();
        return StepResult::Failed;
    }
    if (!value->setString(*name)) {
        error() << "Could not set new computer name";
        return StepResult::Failed;
    }
    const auto services = controlSet->subkey("Services");
    const auto tcpip = services ? services->subkey("Tcpip") : nullptr;
    const auto parameters = tcpip ? tcpip->subkey("Parameters") : nullptr;
    if (const auto hostName = parameters ? parameters->value("NV Hostname") : nullptr)
        hostName->setString(*name); // Windows rewrites it from the name above if this fails
    return StepResult::Ok;
}

} // namespace Libraries::KRO::PostProcessing::Windows

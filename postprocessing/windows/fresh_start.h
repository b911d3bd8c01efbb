#pragma once
// Three steps that make a copied Windows start as a new machine: no hibernated session from the
// source to resume, no recovery prompt for an unclean last shutdown, and no update-client identity
// shared with the source.

#include "platform/hive/hive_file.h"
#include "postprocessing/keeper.h"

#include <string>

namespace Libraries::KRO::PostProcessing::Windows {

// "Purge win hiberfile": the first four bytes of every /hiberfil.sys zeroed; its size is kept.
StepResult purgeHiberfile(Ref<Keeper> keeper);
// "set win clean shutdown": byte 11 of every /Windows/bootstat.dat set to 1.
StepResult setCleanShutdown(Ref<Keeper> keeper);
// "clear WSUS id": the update-client values of every software hive removed.
StepResult clearUpdateClientId(Ref<Keeper> keeper);
// NothingFound when key has no value of that name, Ok when it was deleted, Failed otherwise.
StepResult removeUpdateValue(Platform::Hive::KeyNode& key, const std::string& name);

} // namespace Libraries::KRO::PostProcessing::Windows

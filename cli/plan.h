#pragma once
// Turns the command line into a filled keeper: switches, one disk entry per target and the
// settings that belong to each disk.

#include "cli/options.h"
#include "cli/report.h"
#include "postprocessing/keeper.h"

#include <string>

namespace Cli {

// Empty when every target and source is a readable (and, for targets, writable) image file or
// block device; otherwise the one-line message naming the first that is not.
std::string checkMedia(const Options& options);

// refused: what on the targets will not be touched (a partition table the reader refuses).
Platform::Ref<Libraries::KRO::PostProcessing::Keeper> buildKeeper(const Options& options,
                                                                  std::vector<Refusal>* refused = nullptr);

} // namespace Cli

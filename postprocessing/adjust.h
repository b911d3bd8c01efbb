#pragma once
// The application's adjustment configuration, as far as the configuration-driven preset asks it.

#include "platform/core/ref.h"

#include <cstdint>

namespace Libraries::KRO::Configurations::Apps {

class Adjust : public virtual Platform::RefCount {
public:
    // Whether the application's configuration grants the numbered feature.
    virtual bool isGranted(std::uint32_t feature) const = 0;
};

} // namespace Libraries::KRO::Configurations::Apps

#pragma once
// An id change that never reached the disk: its write failed. The mapping keeps what was
// attempted, for the report, as an object that is no byte array, so that every reader of the
// mapping (the text rewriters above all) finds no new id and names none in a file.

#include "postprocessing/types.h"

namespace Libraries::KRO::PostProcessing {

class NotAppliedId : public Platform::Object {
public:
    explicit NotAppliedId(Ref<ByteArray> attempted) : attempted_(std::move(attempted)) {}
    const Ref<ByteArray>& attempted() const { return attempted_; }

private:
    Ref<ByteArray> attempted_;
};

} // namespace Libraries::KRO::PostProcessing

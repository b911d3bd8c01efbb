#pragma once
// An immutable, reference-counted text, as shared between the keeper, logs and callers.

#include "platform/core/ref.h"

#include <string>
#include <string_view>

namespace Platform {

class String : public Object {
public:
    explicit String(std::string text) : text_(std::move(text)) {}

    static Ref<String> create(std::string_view text) { return makeRef<String>(std::string(text)); }

    const std::string& str() const noexcept { return text_; }
    std::size_t length() const noexcept { return text_.size(); }
    bool empty() const noexcept { return text_.empty(); }

private:
    std::string text_;
};

} // namespace Platform

#include "platform/core/variant.h"

namespace Platform {

Variant Variant::integer(std::uint64_t value, std::string_view typeName)
{
    return Variant(Value(std::in_place_index<1>, value), typeName);
}

Variant Variant::string(std::string_view text, std::string_view typeName)
{
    return Variant(Value(std::in_place_index<2>, text), typeName);
}

Variant Variant::bytes(std::vector<std::uint8_t> bytes, std::string_view typeName)
{
    return Variant(Value(std::in_place_index<3>, std::move(bytes)), typeName);
}

Variant Variant::list(std::vector<NamedVariant> items, std::string_view typeName)
{
    return Variant(Value(std::in_place_index<4>, std::move(items)), typeName);
}

std::optional<std::uint64_t> Variant::asInteger() const noexcept
{
    if (const auto* value = std::get_if<1>(&value_))
        return *value;
    return std::nullopt;
}

const std::string* Variant::asString() const noexcept
{
    return std::get_if<2>(&value_);
}

const std::vector<std::uint8_t>* Variant::asBytes() const noexcept
{
    return std::get_if<3>(&value_);
}

const std::vector<NamedVariant>* Variant::asList() const noexcept
{
    return std::get_if<4>(&value_);
}

const Variant* Variant::item(std::string_view name) const noexcept
{
    const auto* items = asList();
    if (!items)
        return nullptr;
    for (const auto& item : *items)
        if (item.name == name)
            return &item.value;
    return nullptr;
}

bool Variant::operator==(const Variant& other) const
{
    return typeName_ == other.typeName_ && value_ == other.value_;
}

} // namespace Platform

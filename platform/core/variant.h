#pragma once
// The tagged value that travels through the keeper: an integer, a text, a byte array or a list of
// named items (a CHS value is the list CYL, HEAD, SEC). A value may carry a type name
// ("LINUXID") that tells readers what the value means.

#include "platform/core/byte_array.h"
#include "platform/core/string.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace Platform {

struct NamedVariant;

class Variant {
public:
    // Type codes as the system reads them: 2 is a text (a node path), 1 an integer.
    enum class Type : std::uint32_t { Empty = 0, Integer = 1, String = 2, Bytes = 3, List = 4 };

    // Defined below NamedVariant: the list alternative needs it complete.
    Variant();
    ~Variant();
    Variant(const Variant&);
    Variant(Variant&&) noexcept;
    Variant& operator=(const Variant&);
    Variant& operator=(Variant&&) noexcept;

    static Variant integer(std::uint64_t value, std::string_view typeName = {});
    static Variant string(std::string_view text, std::string_view typeName = {});
    static Variant bytes(std::vector<std::uint8_t> bytes, std::string_view typeName = {});
    static Variant list(std::vector<NamedVariant> items, std::string_view typeName = {});

    Type type() const noexcept { return static_cast<Type>(value_.index()); }
    const std::string& typeName() const noexcept { return typeName_; }

    bool isInteger() const noexcept { return type() == Type::Integer; }
    bool isString() const noexcept { return type() == Type::String; }
    bool isBytes() const noexcept { return type() == Type::Bytes; }
    bool isList() const noexcept { return type() == Type::List; }

    // Each accessor answers nothing (or an empty value) when the variant holds another type.
    std::optional<std::uint64_t> asInteger() const noexcept;
    const std::string* asString() const noexcept;
    const std::vector<std::uint8_t>* asBytes() const noexcept;
    const std::vector<NamedVariant>* asList() const noexcept;

    // The list item of the given name, or null.
    const Variant* item(std::string_view name) const noexcept;

    bool operator==(const Variant& other) const;

private:
    using Value =
        std::variant<std::monostate, std::uint64_t, std::string, std::vector<std::uint8_t>, std::vector<NamedVariant>>;
    Variant(Value value, std::string_view typeName);

    Value value_;
    std::string typeName_;
};

struct NamedVariant {
    std::string name;
    Variant value;
    bool operator==(const NamedVariant&) const = default;
};

inline Variant::Variant() = default;
inline Variant::~Variant() = default;
inline Variant::Variant(const Variant&) = default;
inline Variant::Variant(Variant&&) noexcept = default;
inline Variant& Variant::operator=(const Variant&) = default;
inline Variant& Variant::operator=(Variant&&) noexcept = default;
inline Variant::Variant(Value value, std::string_view typeName) : value_(std::move(value)), typeName_(typeName) {}

using VariantList = std::vector<Variant>;

} // namespace Platform

// Defaults records: the static, read-only description of a parameter's preset
// value, limits, unit, step sizes and capacity.
//
// Every record kind is a plain aggregate whose first member is its kind tag,
// initialised by the kind itself; records are written with designated
// initialisers and may be constexpr:
//     constexpr SDefaultsRealValueMinMax kRFAtten{.unit = eUNIT_DB, .value = 5.0, .minimum = 0.0, .maximum = 75.0};
// Positional initialisation without designators does not compile (the tag
// is a scoped enumeration), so a tag can never be given by mistake.
//
// A parameter holds its record as a CDefaultsRef (a pointer to the tag) and
// asks for a kind with As<Kind>(): the record when its tag is exactly that
// kind, else null. There is no inheritance between kinds: a test for one kind
// never matches another. Records are shared by pointer, never copied and never
// freed; one record may serve many parameters.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

#include "vorn/parameter.h"

namespace vorn {

// The 32 bits of an enumerated argument (eSTATUS, eUNIT, eSTEP), read without
// loading them as the enumeration: a client may pass any 32-bit value, and
// only the bits are compared.
template <class E>
LONG EnumBits(const E& value) noexcept {
    static_assert(std::is_enum_v<E> && sizeof(E) == sizeof(LONG));
    LONG bits = 0;
    std::memcpy(&bits, &value, sizeof bits);
    return bits;
}

enum class EDefaultsKind : std::uint32_t {
    None = 1,
    BooleanValue,
    IntegerValue,
    IntegerValueMinMax,
    Enum,
    EnumValue,
    Real,
    RealValue,
    RealValueMinMax,
    RealValueMinMaxNoReset,
    RealSettingIncDec,
    RealSettingIncDecNoReset,
    StringValue,
    IntegerArray,
    RealArray,
    Buffer,
};

}  // namespace vorn

#define VORN_DEFAULTS_KIND(kindName)                                                \
    static constexpr ::vorn::EDefaultsKind kKind = ::vorn::EDefaultsKind::kindName; \
    ::vorn::EDefaultsKind kind = kKind

// The parameter's value is always derived or set by its owner.
struct SDefaultsNone {
    VORN_DEFAULTS_KIND(None);
};

struct SDefaultsBooleanValue {
    VORN_DEFAULTS_KIND(BooleanValue);
    ULONG value;  // 0 false, 1 true; only the low byte is read
};

struct SDefaultsIntegerValue {
    VORN_DEFAULTS_KIND(IntegerValue);
    ULONG value;
};

struct SDefaultsIntegerValueMinMax {
    VORN_DEFAULTS_KIND(IntegerValueMinMax);
    ULONG value;
    ULONG minimum;
    ULONG maximum;
};

// An enumeration without initial value: Reset leaves it invalid.
struct SDefaultsEnum {
    VORN_DEFAULTS_KIND(Enum);
    ULONG count;
};

struct SDefaultsEnumValue {
    VORN_DEFAULTS_KIND(EnumValue);
    ULONG count;
    ULONG value;  // index of the initial member
};

struct SDefaultsReal {
    VORN_DEFAULTS_KIND(Real);
    eUNIT unit;
};

struct SDefaultsRealValue {
    VORN_DEFAULTS_KIND(RealValue);
    eUNIT unit;
    double value;
};

struct SDefaultsRealValueMinMax {
    VORN_DEFAULTS_KIND(RealValueMinMax);
    eUNIT unit;
    double value;
    double minimum;
    double maximum;
};

// Limits without a value: Reset installs the limits and leaves the value invalid.
struct SDefaultsRealValueMinMaxNoReset {
    VORN_DEFAULTS_KIND(RealValueMinMaxNoReset);
    eUNIT unit;
    double minimum;
    double maximum;
};

struct SDefaultsRealSettingIncDec {
    VORN_DEFAULTS_KIND(RealSettingIncDec);
    eUNIT unit;
    double value;
    double minimum;
    double maximum;
    double smallStep;
    double largeStep;
};

struct SDefaultsRealSettingIncDecNoReset {
    VORN_DEFAULTS_KIND(RealSettingIncDecNoReset);
    eUNIT unit;
    double minimum;
    double maximum;
    double smallStep;
    double largeStep;
};

// `value` points at a constant zero-terminated UTF-16 string with static
// storage duration.
struct SDefaultsStringValue {
    VORN_DEFAULTS_KIND(StringValue);
    const OLECHAR* value;
};

struct SDefaultsIntegerArray {
    VORN_DEFAULTS_KIND(IntegerArray);
    ULONG maxSize;  // element capacity
    eUNIT unit;
};

struct SDefaultsRealArray {
    VORN_DEFAULTS_KIND(RealArray);
    ULONG maxSize;  // element capacity
    eUNIT unit;
};

// The initial shape of a buffer parameter. The three leading words are kept
// as the schema gives them (1, 4, 1) and are not read by Reset; a first extent
// of 0 builds no buffer.
struct SDefaultsBuffer {
    VORN_DEFAULTS_KIND(Buffer);
    ULONG leading[3];
    ULONG firstExtent;
    ULONG secondExtent;
};

#undef VORN_DEFAULTS_KIND

namespace vorn {

// A reference to any defaults record, or to none.
class CDefaultsRef {
public:
    constexpr CDefaultsRef() noexcept = default;
    template <class Record>
    requires std::is_same_v<decltype(Record::kKind), const EDefaultsKind>
    constexpr CDefaultsRef(const Record* record) noexcept : kind_(record ? &record->kind : nullptr) {}
    // The same for a record that exists: without the null test, so it stays a
    // constant expression under GCC's -fsanitize=null (the generated layout
    // tables of the tree use it).
    template <class Record>
    requires std::is_same_v<decltype(Record::kKind), const EDefaultsKind>
    constexpr CDefaultsRef(const Record& record) noexcept : kind_(&record.kind) {}

    // The record when it is exactly of kind Record, else null (also when
    // there is no record).
    template <class Record>
    const Record* As() const noexcept {
        if (!kind_ || *kind_ != Record::kKind) return nullptr;
        // The tag is the first member of a standard-layout record, so the two
        // addresses are interconvertible.
        return reinterpret_cast<const Record*>(kind_);
    }

    explicit operator bool() const noexcept { return kind_ != nullptr; }
    EDefaultsKind Kind() const noexcept { return kind_ ? *kind_ : EDefaultsKind::None; }

private:
    const EDefaultsKind* kind_ = nullptr;
};

}  // namespace vorn

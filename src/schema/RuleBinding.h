// How the rule classes of the schema find the parameters they work with,
// and how they hook into the change path.
//
// A rule class looks its partners up once, in PostConstruct (or
// PostConstruct2 when it needs another rule's bindings), with the lookups of
// files/TreeLinks.h (by name among its siblings or by a path from the root of
// the tree), and adds itself to the dependants of those whose changes it
// follows.
//
// A partner that is missing or of another class is a null pointer: the rule
// that needs it then does nothing, it never fails. The rules are written for
// the tree of the schema, where every partner exists; their tests show that
// they are bound.
//
// Two bases give a rule class its hooks: CRecalculated (a value derived when
// what it follows changes) and CWrittenThrough (also a client's writes go
// through the rule).
#pragma once

#include <string_view>
#include <type_traits>

#include "core/GroupImpl.h"
#include "files/TreeLinks.h"
#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterReal.h"
#include "stream/DataStream.h"

namespace vorn::rules {

// Adds `dependant` to the dependants of `source` (nothing when `source` is
// null; a second addition is refused by the list and ignored).
void Follow(CDatabaseObjectImpl* source, CDatabaseObjectImpl* dependant) noexcept;

// Follow for each of `sources`.
template <class... Sources>
void FollowAll(CDatabaseObjectImpl* dependant, Sources*... sources) noexcept {
    (Follow(sources, dependant), ...);
}

// Writes a Boolean through its change path only when that changes it (a
// plain Boolean would tell its sinks of an unchanged value again).
void WriteIfChanged(CParameterBoolean* flag, bool value);
// The same for a plain integer and a plain real (nothing when null).
void WriteIfChanged(CParameterInteger* parameter, ULONG value);
void WriteIfChanged(CParameterReal* parameter, double value);
// Makes a valid parameter invalid and tells its dependants (nothing when
// null or already invalid).
void Invalidate(CParameter* parameter);

// A new BSTR holding `text`; throws ComError(E_OUTOFMEMORY).
BstrPtr NewText(std::u16string_view text);

// A parameter class `Base` whose value a rule derives: Recalculate and
// OnDependencyChanged run Update, which tells whether the value changed (and
// so whether the change travels on).
template <class Base>
class CRecalculated : public Base {
public:
    void Recalculate(CDatabaseObjectImpl* source) override { Update(source); }
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override { return Update(source); }

protected:
    // The rule after a change of `source` (null: a run of the rule's own).
    virtual bool Update(CDatabaseObjectImpl* source) = 0;
};

// A CRecalculated whose client writes go through the rule too: put_Value
// (the change path) and AssignValue with bit 0 run Write in place of the
// class's checked store; AssignValue without bit 0 stores the value raw.
template <class Base, class T>
class CWrittenThrough : public CRecalculated<Base> {
public:
    STDMETHODIMP put_Value(T value) override {
        return this->ChangeValue([&] { return Write(value); });
    }
    STDMETHODIMP AssignValue(T value, ULONG udwCtrlFlags) override {
        return this->AssignWithFlags(
            udwCtrlFlags, [&] { return Write(value); },
            [&] {
                if constexpr (std::is_same_v<T, VARIANT_BOOL>)
                    this->value_ = value != 0 ? 1 : 0;
                else
                    this->value_ = value;
            });
    }

protected:
    // A client's write: the checked store and what the rule adds to it.
    virtual HRESULT Write(T value) = 0;
};

}  // namespace vorn::rules

// The rules of the limit lines: see LimitLines.h and docs/limitlines.md.
#include "schema/LimitLines.h"

#include <string>

namespace vorn {

// --- CParameterLimitLineCount ------------------------------------------------

void CParameterLimitLineCount::PostConstruct() {
    for (int i = 0; i < kLimitLines; ++i) {
        const std::string line = "Line[" + std::to_string(i) + "].";
        exists_[i] = SiblingOf<CParameterBoolean>(*this, line + "Exists");
        checkLimit_[i] = SiblingOf<CParameterBoolean>(*this, line + "CheckLimit");
        rules::FollowAll(this, exists_[i], checkLimit_[i]);
    }
}

bool CParameterLimitLineCount::Update(CDatabaseObjectImpl*) {
    ULONG count = 0;
    for (int i = 0; i < kLimitLines; ++i)
        if (IsTrue(exists_[i]) && (!checked_ || IsTrue(checkLimit_[i]))) ++count;
    if (IsValid() && count == value_) return false;
    SetValue(count);
    return true;
}

// --- CParameterLLCompatible --------------------------------------------------

void CParameterLLCompatible::PostConstruct() {
    limit_ = SiblingOf<CParameterInteger>(*this, "Limit");
    domain_ = SiblingOf<CParameterInteger>(*this, "Domain");
    units_ = SiblingOf<CParameterInteger>(*this, "Units");
    result_ = SiblingOf<CParameterInteger>(*this, "ResultType");
    checkLimit_ = SiblingOf<CParameterBoolean>(*this, "CheckLimit");
    graph_ = FromRoot<CParameterInteger>(*this, "OptionStateInfo.CurrentGraphType");
    transientMode_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.TransientMode");
    pmUnit_ = FromRoot<CParameterInteger>(*this, "UserSettings.TransientSettings.PMUnit");
    highlightSpurs_ = FromRoot<CParameterBoolean>(*this, "GuiSettings.HighlightSpurs");
    rules::FollowAll(this, limit_, domain_, units_, result_, checkLimit_, graph_, transientMode_, pmUnit_,
                     highlightSpurs_);
}

bool CParameterLLCompatible::IsCompatible(ULONG result, ULONG units, ULONG graph, ULONG transientMode, ULONG pmUnit,
                                          bool highlightSpurs) noexcept {
    switch (result) {
        case eRESULT_PNOISE:
            if (graph != eGRAPH_PNOISEANALYSER && graph != eGRAPH_PNOISEPLL && graph != eGRAPH_PNOISEXCORR &&
                graph != eGRAPH_RESIDUALPNOISE && graph != eGRAPH_AMNOISE)
                return false;
            return units == eLLUNIT_DBC_HZ ||
                   (units == eLLUNIT_DBC && graph != eGRAPH_PNOISEANALYSER && highlightSpurs);
        case eRESULT_BASEBAND:
            return graph == eGRAPH_PNOISEBASEBAND &&
                   (units == eLLUNIT_DBV_HZ || (units == eLLUNIT_DBV && highlightSpurs));
        case eRESULT_TRANSIENT:
            if (graph != eGRAPH_TRANSIENT) return false;
            switch (transientMode) {
                case eTRANS_FM:
                    return units == eLLUNIT_HZ;
                case eTRANS_AM:
                    return units == eLLUNIT_RATIO;
                case eTRANS_RF:
                    return units == eLLUNIT_DBM;
                case eTRANS_PM:
                    return (pmUnit == ePMUNIT_RAD && units == eLLUNIT_RAD) ||
                           (pmUnit == ePMUNIT_DEG && units == eLLUNIT_DEGREE);
                default:
                    return false;
            }
        default:
            return false;
    }
}

bool CParameterLLCompatible::Update(CDatabaseObjectImpl*) {
    constexpr ULONG kUnread = 0xFFFFFFFF;
    const ULONG result = rules::ValueOr(result_, kUnread), units = rules::ValueOr(units_, kUnread),
                graph = rules::ValueOr(graph_, kUnread), mode = rules::ValueOr(transientMode_, kUnread),
                pmUnit = rules::ValueOr(pmUnit_, kUnread);
    const bool spursReadable = highlightSpurs_ && highlightSpurs_->IsValid();
    // Any partner that cannot be read makes the line incompatible (the
    // transient partners only matter to transient lines).
    const bool readable = result != kUnread && units != kUnread && graph != kUnread && spursReadable &&
                          (result != eRESULT_TRANSIENT || (mode != kUnread && pmUnit != kUnread));
    const bool compatible = readable && IsCompatible(result, units, graph, mode, pmUnit, IsTrue(highlightSpurs_));
    if (IsValid() && GetValue() == compatible) return false;
    SetValue(compatible);
    return true;
}

}  // namespace vorn

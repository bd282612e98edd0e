// How the rule classes find their partners: see RuleBinding.h.
#include "schema/RuleBinding.h"

#include <charconv>

namespace vorn::rules {

CDatabaseObjectImpl* Find(const CGroupImpl* from, std::string_view path) noexcept {
    CDatabaseObjectImpl* node = const_cast<CGroupImpl*>(from);
    while (node && !path.empty()) {
        const auto* group = dynamic_cast<const CGroupImpl*>(node);
        if (!group) return nullptr;
        const std::size_t dot = path.find('.');
        std::string_view component = path.substr(0, dot);
        path = dot == std::string_view::npos ? std::string_view() : path.substr(dot + 1);
        LONG index = -1;
        if (const std::size_t open = component.find('['); open != std::string_view::npos) {
            const char* first = component.data() + open + 1;
            const char* last = component.data() + component.size() - 1;
            if (component.back() != ']' || std::from_chars(first, last, index).ptr != last) return nullptr;
            component = component.substr(0, open);
        }
        node = Child(*group, component, index);
    }
    return node;
}

void Follow(CDatabaseObjectImpl* source, CDatabaseObjectImpl* dependant) noexcept {
    if (source) source->AddDependant(dependant);
}

void WriteIfChanged(CParameterBoolean* flag, bool value) {
    if (flag && (!flag->IsValid() || flag->GetValue() != value)) flag->put_Value(value ? VARIANT_TRUE : VARIANT_FALSE);
}

BstrPtr NewText(std::u16string_view text) {
    BstrPtr out(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!out) ThrowHr(E_OUTOFMEMORY, "no memory for a text");
    return out;
}

}  // namespace vorn::rules

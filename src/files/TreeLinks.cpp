// How the rule classes find their partners: see TreeLinks.h.
#include "files/TreeLinks.h"

#include <charconv>

namespace vorn {

CDatabaseObjectImpl* FindPath(CDatabaseObjectImpl* from, std::string_view path) noexcept {
    CDatabaseObjectImpl* node = from;
    while (node && !path.empty()) {
        CGroupImpl* group = node->AsGroup();
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
        node = group->FindChild(component, index);
    }
    return node;
}

}  // namespace vorn

// libFuzzer target: arbitrary bytes as the text of a registry file, read by
// the runtime's parser (src/platform/registry_store.h, Parse).
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - a refused text carries an error "<file>:<line>: <what>" whose line lies
//     within the text, or "<file>: <what>" for a fault of the whole file;
//   - a text that parses serialises to a text that parses again, to the same
//     tree (names with their letter case, values in order with their types
//     and bytes, subkeys), and that serialises to the same text.
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "fuzz_support.h"
#include "registry_store.h"

namespace {

using vorn::fuzz::Expect;
using vorn::fuzz::Fail;
using vorn::rt::reg::Key;
using vorn::rt::reg::Tree;

const std::string kFileName = "fuzz.reg";

// The number of lines the parser can see: line breaks plus one, counted in
// UTF-16 units for text with the UTF-16LE mark.
std::size_t LineCount(std::string_view text) {
    std::size_t breaks = 0;
    if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xFF &&
        static_cast<unsigned char>(text[1]) == 0xFE) {
        for (std::size_t i = 2; i + 1 < text.size(); i += 2)
            if (text[i] == '\n' && text[i + 1] == '\0') ++breaks;
    } else {
        for (char c : text)
            if (c == '\n') ++breaks;
    }
    return breaks + 1;
}

void CheckError(const std::string& error, std::string_view text) {
    const std::string head = kFileName + ":";
    if (error.compare(0, head.size(), head) != 0) Fail("an error without the file name", error);
    std::size_t at = head.size();
    if (error.compare(at, 1, " ") == 0) {
        if (error.size() <= at + 1) Fail("an error without a text", error);
        return;
    }
    std::size_t line = 0;
    const std::size_t digits = at;
    while (at < error.size() && error[at] >= '0' && error[at] <= '9' && at - digits < 12)
        line = line * 10 + static_cast<std::size_t>(error[at++] - '0');
    if (at == digits || error.compare(at, 2, ": ") != 0 || error.size() <= at + 2)
        Fail("an error neither \"file:line: what\" nor \"file: what\"", error);
    if (line < 1 || line > LineCount(text)) Fail("an error with a line outside the text", error);
}

bool SameKey(const Key& a, const Key& b) {
    if (a.name() != b.name() || a.values().size() != b.values().size() || a.subkeys().size() != b.subkeys().size())
        return false;
    for (std::size_t i = 0; i < a.values().size(); ++i) {
        const auto& x = a.values()[i];
        const auto& y = b.values()[i];
        if (x.name != y.name || x.type != y.type || x.data != y.data) return false;
    }
    for (auto x = a.subkeys().begin(), y = b.subkeys().begin(); x != a.subkeys().end(); ++x, ++y)
        if (x->first != y->first || !SameKey(*x->second, *y->second)) return false;
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    Tree tree;
    std::string error;
    if (!vorn::rt::reg::Parse(text, kFileName, &tree, &error)) {
        CheckError(error, text);
        return 0;
    }
    Expect(error.empty(), "an error text after a successful parse");

    const std::string first = vorn::rt::reg::Serialize(tree);
    Tree again;
    if (!vorn::rt::reg::Parse(first, kFileName, &again, &error)) Fail("the serialised text does not parse", error);
    Expect(SameKey(tree.localMachine, again.localMachine) && SameKey(tree.currentUser, again.currentUser),
           "the serialised text parses to another tree");
    Expect(vorn::rt::reg::Serialize(again) == first, "the tree read back serialises to another text");
    return 0;
}

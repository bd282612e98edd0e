// libFuzzer target: arbitrary bytes as a registration script (the language of
// resources/Database.rgs), read by the registrar's parser without touching
// the registry (src/platform/registrar_script.h), with the replacements the
// component module passes (%CLSID%, %LIBID%, %MODULE%).
//
// Properties checked on every input, beyond AddressSanitizer's:
//   - nothing but a syntax error escapes the parser (any other exception
//     reaches libFuzzer as a crash);
//   - a refused script carries "registration script, line N: what" with N
//     within the script;
//   - the script with "\r\n" line ends reads exactly as with "\n": the same
//     outcome and the same error text.
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "registrar_script.h"

namespace {

using vorn::fuzz::Fail;

const VORN_REGMAP_ENTRY kReplacements[] = {
    {"CLSID", "{B1D3F3A0-52C4-4E0B-9D7A-6F0C2E1A9B11}"},
    {"LIBID", "{B1D3F3A1-52C4-4E0B-9D7A-6F0C2E1A9B11}"},
    {"MODULE", "/opt/vorn/lib/libvorndb.so"},
    {nullptr, nullptr},
};

void CheckError(const std::string& error, const std::string& script) {
    const std::string head = "registration script, line ";
    if (error.compare(0, head.size(), head) != 0) Fail("an error without its line", error);
    std::size_t at = head.size();
    std::size_t line = 0;
    while (at < error.size() && error[at] >= '0' && error[at] <= '9' && at - head.size() < 12)
        line = line * 10 + static_cast<std::size_t>(error[at++] - '0');
    std::size_t lines = 1;
    for (char c : script)
        if (c == '\n') ++lines;
    if (at == head.size() || error.compare(at, 2, ": ") != 0 || error.size() <= at + 2)
        Fail("an error not of the form \"line N: what\"", error);
    if (line < 1 || line > lines) Fail("an error with a line outside the script", error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string script(reinterpret_cast<const char*>(data), size);
    std::string error;
    const bool parsed = vorn::rt::ParseRegistrationScript(script, kReplacements, &error);
    if (!parsed) CheckError(error, script);

    std::string crlf;
    crlf.reserve(script.size() + script.size() / 8);
    for (char c : script) {
        if (c == '\n') crlf += '\r';
        crlf += c;
    }
    std::string crlfError;
    const bool crlfParsed = vorn::rt::ParseRegistrationScript(crlf, kReplacements, &crlfError);
    if (crlfParsed != parsed || crlfError != error)
        Fail("\"\\r\\n\" line ends change the outcome", error + " / " + crlfError);
    return 0;
}

// Shared pieces of the vorndb tool: exit codes, the error every command
// throws, HRESULT descriptions, text conversion and serialised output.
//
// Every command reports failure by throwing ToolError with one of the exit
// codes below; the command dispatcher (Commands.cpp) prints its message on
// standard error and returns the code. Output of the watch sinks comes from the
// notification thread, so all writes to standard output and standard error go
// through Print / PrintError, which hold one process-wide mutex per line.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "vorn/platform.h"

namespace vorndb {

// Exit codes of the tool, documented in `vorndb --help` and docs/tool.md.
enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,      // anything else: the database cannot be created, an interface call failed
    kExitUsage = 2,        // bad command line or script syntax
    kExitUnknownName = 3,  // a name that is not in the tree (or not in the type library)
    kExitRejected = 4,     // a value that cannot be parsed or that the parameter refused
    kExitFile = 5,         // a file that cannot be read, written, loaded or decoded
    // 6 is diff's "the files differ" (Commands.cpp).
    kExitOutsideSettings = 7,  // set --settings: a name outside the node the file holds
    kExitRefusedInFile = 8,    // set --settings: the file holds a value the database refuses
};

// The failure of one command: what to print and the exit code.
class ToolError : public std::runtime_error {
public:
    ToolError(ExitCode code, const std::string& message) : std::runtime_error(message), code_(code) {}
    ExitCode code() const noexcept { return code_; }

private:
    ExitCode code_;
};

// "0x80070057 E_INVALIDARG: the value is out of range or not accepted" for the
// codes the database returns; "0x........" and a generic text for others.
// Given the object a failed call was made on and the interface it was called
// through: when the object reports error information for that interface
// (ISupportErrorInfo), the reason it gave takes the generic text's place,
// followed by its source: "0x80070057 E_INVALIDARG: 100 GHz is above the
// upper limit 50 GHz (UserSettings.PhaseNoiseSettings.SignalFreq)". The
// error object is taken from the thread (GetErrorInfo), so describe a
// failure before making any other call.
std::string DescribeHresult(HRESULT hr, IUnknown* object = nullptr, REFIID iid = IID_IUnknown);
template <class I>
std::string DescribeHresult(HRESULT hr, I* object) {
    return DescribeHresult(hr, object, VORN_UUIDOF(I));
}

// The reason `object` gave for the failure of its last call through `iid`,
// followed by its source: "100 GHz is above the upper limit 50 GHz
// (UserSettings.PhaseNoiseSettings.SignalFreq)"; "" when it reports no error
// information for that interface. Read it right after the failure.
std::string ReportedReason(IUnknown* object, REFIID iid);

// "0x54 (84)": a byte offset in a file, for messages.
std::string OffsetText(std::size_t offset);

// Takes over a BSTR, frees it and returns its text as UTF-8 (null: "").
std::string TakeBstr(BSTR text);

// Writes whole lines to standard output / standard error, serialised against
// the watch sinks' output. `line` is written followed by a newline.
void Print(const std::string& line);
void PrintError(const std::string& line);
// Writes text as it is (no newline) to standard output, serialised as above.
void PrintRaw(const std::string& text);
// Where long output goes, a piece at a time.
using TextSink = std::function<void(std::string_view text)>;
// Calls write with a sink to standard output, serialised as above: long
// output is written as it is made.
void PrintTo(const std::function<void(const TextSink& put)>& write);

}  // namespace vorndb

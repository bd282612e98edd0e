// The built-in noise frequency tables: see NoiseTables.h.
#include "files/NoiseTables.h"

#include <climits>
#include <cstdlib>

#include "files/Numbers.h"
#include "files/TreeLinks.h"

// The anchor the files layer embeds beside the table resources
// (src/files/CMakeLists.txt): referring to it links them in, and its address
// names the module that holds them.
extern "C" const char vorn_noise_tables[];

namespace vorn {

namespace {

constexpr const char* kTableNames[kNoiseTableCount] = {
    "Fast_NoiseMeasFreqTable.txt",
    "RegularAveraged_NoiseMeasFreqTable.txt",
    "HighlyAverage_NoiseMeasFreqTable.txt",
    "Manual_NoiseMeasFreqTable.txt",
    "P17_Fast_NoiseMeasFreqTable.txt",
    "P17_Normal_NoiseMeasFreqTable.txt",
    "P17_High_NoiseMeasFreqTable.txt",
    "P17_Manual_NoiseMeasFreqTable.txt",
    "Baseband_Fast_NoiseMeasFreqTable.txt",
    "Baseband_RegularAveraged_NoiseMeasFreqTable.txt",
    "Baseband_HighlyAverage_NoiseMeasFreqTable.txt",
    "Baseband_Manual_NoiseMeasFreqTable.txt",
    "Residual_Fast_NoiseMeasFreqTable.txt",
    "Residual_Normal_NoiseMeasFreqTable.txt",
    "Residual_Averaged_NoiseMeasFreqTable.txt",
    "Residual_Manual_NoiseMeasFreqTable.txt",
};
// The row-count parameters of OptionStateInfo.ManualTableRows, by family.
constexpr const char* kRowCountNames[kNoiseTableFamilies] = {"Standard", "P17", "Baseband", "Residual"};
constexpr std::size_t kFields = 5;

bool IsManualTable(ULONG index) noexcept { return index % 4 == 3; }

// The C locale's white space; bytes of multi-byte characters never are.
bool IsWhite(char c) noexcept { return c == ' ' || (c >= '\t' && c <= '\r'); }

// A field read as atof and atoi read it (in the C locale).
double ReadReal(std::string_view field) { return StrtodC(std::string(field).c_str(), nullptr); }

LONG ReadInteger(std::string_view field) {
    const std::string text(field);
    const long long value = std::strtoll(text.c_str(), nullptr, 10);
    return static_cast<LONG>(value < INT_MIN ? INT_MIN : value > INT_MAX ? INT_MAX : value);
}

std::string LineText(ULONG line) { return "line " + std::to_string(line) + ": "; }

// "NoiseFreqTable[3] (Manual_NoiseMeasFreqTable.txt)".
std::string TableText(ULONG index) {
    return "NoiseFreqTable[" + std::to_string(index) + "] (" + NoiseTableName(index) + ")";
}

// The reason a parameter left for its refusal, after its name.
std::string Refusal(const CDatabaseObjectImpl& parameter) {
    return parameter.FullName() + ": " + TakeErrorDescription();
}

}  // namespace

const char* NoiseTableName(ULONG index) noexcept { return index < kNoiseTableCount ? kTableNames[index] : ""; }

HRESULT ParseNoiseTable(std::string_view text, std::vector<SNoiseTableRow>& rows, std::string& reason) {
    rows.clear();
    ULONG number = 0;
    for (std::size_t end; (end = text.find("\r\n")) != std::string_view::npos; text.remove_prefix(end + 2)) {
        ++number;
        std::string_view line = text.substr(0, end);
        while (!line.empty() && IsWhite(line.front())) line.remove_prefix(1);
        if (line.empty() || line.front() == '/') continue;

        std::string_view fields[kFields];
        std::size_t count = 0;
        while (!line.empty()) {
            std::size_t length = 0;
            while (length < line.size() && !IsWhite(line[length])) ++length;
            if (count < kFields) fields[count] = line.substr(0, length);
            ++count;
            line.remove_prefix(length);
            while (!line.empty() && IsWhite(line.front())) line.remove_prefix(1);
        }
        if (count != kFields) {
            reason = LineText(number) + std::to_string(count) + (count == 1 ? " field" : " fields") +
                     ", where a data line has 5 (Start Stop RBW Average FFT)";
            return E_INVALIDARG;
        }
        if (rows.size() == kNoiseTableRows) {
            reason = LineText(number) + "a data line beyond the table's " + std::to_string(kNoiseTableRows) + " rows";
            return E_INVALIDARG;
        }
        SNoiseTableRow row;
        row.line = number;
        if (fields[4] == "Y")
            row.filter = SNoiseTableRow::EFilter::kFFT;
        else if (fields[4] == "N")
            row.filter = SNoiseTableRow::EFilter::kSwept;
        else if (fields[4] != "N/A") {
            reason = LineText(number) + "the FFT field is '" + std::string(fields[4]) + "', not Y, N or N/A";
            return E_INVALIDARG;
        }
        row.start = ReadReal(fields[0]);
        row.stop = ReadReal(fields[1]);
        row.rbw = ReadReal(fields[2]);
        row.averages = ReadInteger(fields[3]);
        rows.push_back(row);
    }
    return S_OK;
}

HRESULT NoiseTableText(ULONG index, std::string_view& text, std::string& reason) {
    text = {};
    const std::string name = NoiseTableName(index);
    HMODULE module = nullptr;
    if (!GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                            vorn_noise_tables, &module)) {
        const DWORD error = GetLastError();
        reason = "the module holding the noise tables is not found (Win32 error " + std::to_string(error) + ")";
        return HRESULT_FROM_WIN32(error);
    }
    HRSRC found = FindResourceA(module, name.c_str(), kNoiseTableResourceType);
    const void* data = found ? LockResource(LoadResource(module, found)) : nullptr;
    if (!data) {
        const DWORD error = GetLastError();
        reason = "the module has no " + std::string(kNoiseTableResourceType) + " resource '" + name +
                 "' (Win32 error " + std::to_string(error) + ")";
        return HRESULT_FROM_WIN32(error);
    }
    text = std::string_view(static_cast<const char*>(data), SizeofResource(module, found));
    return S_OK;
}

// ---------------------------------------------------------------------------
// CParameterNoiseTables
// ---------------------------------------------------------------------------
SOffsetRow BindOffsetRow(CDatabaseObjectImpl* group, const char* averagesName, const char* filterName) {
    if (!group) return {};
    return {ChildOf<CParameterReal>(group, "Start"), ChildOf<CParameterReal>(group, "Stop"),
            ChildOf<CParameterReal>(group, "RBW"), ChildOf<CParameterInteger>(group, averagesName),
            ChildOf<CParameterBoolean>(group, filterName)};
}

void CParameterNoiseTables::PostConstruct() {
    CGroupImpl* root = RootOf(*this);
    for (ULONG t = 0; t < kNoiseTableCount; ++t) {
        auto* table = ChildOf<CGroupImpl>(root, "NoiseFreqTable", static_cast<LONG>(t));
        for (ULONG r = 0; r < kNoiseTableRows; ++r) {
            rows_[t][r] = BindOffsetRow(ChildOf<CGroupImpl>(table, "CarrierFreqOffset", static_cast<LONG>(r)));
        }
    }
    auto* rows = ChildOf<CGroupImpl>(ChildOf<CGroupImpl>(root, "OptionStateInfo"), "ManualTableRows");
    for (ULONG f = 0; f < kNoiseTableFamilies; ++f) {
        userTables_[f] = ChildOf<CGroupImpl>(root, "NoiseFreqTablePreset", static_cast<LONG>(f));
        rowCounts_[f] = ChildOf<CParameterInteger>(rows, kRowCountNames[f]);
    }
}

STDMETHODIMP CParameterNoiseTables::put_Value(VARIANT_BOOL bValue) {
    return ChangeValue([&] { return Load(bValue != 0); });
}

STDMETHODIMP CParameterNoiseTables::AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) {
    if (!(udwCtrlFlags & kAssignNotify)) return CParameterBoolean::AssignValue(bValue, udwCtrlFlags);
    return AssignWithFlags(
        udwCtrlFlags, [&] { return Load(bValue != 0); }, [] {});
}

HRESULT CParameterNoiseTables::Load(bool full) {
    const HRESULT hr = LoadTables(full);
    SetValue(SUCCEEDED(hr));
    return hr;
}

HRESULT CParameterNoiseTables::LoadTables(bool full) {
    std::string first;
    ULONG failed = 0;
    for (ULONG index = 0; index < kNoiseTableCount; ++index) {
        std::string reason;
        if (SUCCEEDED(LoadTable(index, full, reason))) continue;
        if (full)
            return Fail(E_INVALIDARG,
                        index + 1 < kNoiseTableCount ? reason + "; the tables after it were not loaded" : reason);
        if (failed++ == 0) first = reason;
    }
    if (failed == 0) return S_OK;
    return Fail(E_INVALIDARG,
                failed == 1 ? first : first + " (and " + std::to_string(failed - 1) + " more tables failed)");
}

HRESULT CParameterNoiseTables::LoadTable(ULONG index, bool full, std::string& reason) {
    std::string_view text;
    std::string why;
    if (FAILED(NoiseTableText(index, text, why))) {
        reason = TableText(index) + ": " + why;
        return E_INVALIDARG;
    }
    std::vector<SNoiseTableRow> parsed;
    if (FAILED(ParseNoiseTable(text, parsed, why))) {
        reason = TableText(index) + " " + why;
        return E_INVALIDARG;
    }
    // The user's own rows of a manual table survive a refresh; the residual
    // family's are always written again.
    const bool keepValidRows = !full && IsManualTable(index) && index != kNoiseTableCount - 1;
    for (std::size_t r = 0; r < parsed.size(); ++r) {
        const SOffsetRow& row = rows_[index][r];
        if (keepValidRows && row.start && row.start->IsValid()) continue;
        if (FAILED(WriteRow(row, parsed[r], why))) {
            reason = TableText(index) + " " + LineText(parsed[r].line) + why;
            return E_INVALIDARG;
        }
    }
    if (!full || !IsManualTable(index)) return S_OK;
    const ULONG family = index / 4;
    if (!userTables_[family] || !rowCounts_[family]) {
        reason = "the tree has no NoiseFreqTablePreset[" + std::to_string(family) +
                 "] or OptionStateInfo.ManualTableRows." + kRowCountNames[family];
        return E_INVALIDARG;
    }
    if (FAILED(userTables_[family]->Reset()) ||
        FAILED(rowCounts_[family]->put_Value(static_cast<ULONG>(parsed.size())))) {
        reason = TableText(index) + ": " + TakeErrorDescription();
        return E_INVALIDARG;
    }
    return S_OK;
}

HRESULT CParameterNoiseTables::WriteRow(const SOffsetRow& row, const SNoiseTableRow& values, std::string& reason) {
    if (!row.start || !row.stop || !row.rbw || !row.averages || !row.filter) {
        reason = "the tree has no row for this line";
        return E_INVALIDARG;
    }
    const auto refused = [&](const CDatabaseObjectImpl& parameter) {
        reason = Refusal(parameter);
        return E_INVALIDARG;
    };
    if (FAILED(row.start->put_Value(values.start))) return refused(*row.start);
    if (FAILED(row.stop->put_Value(values.stop))) return refused(*row.stop);
    if (FAILED(row.rbw->put_Value(values.rbw))) return refused(*row.rbw);
    if (FAILED(row.averages->put_Value(static_cast<ULONG>(values.averages)))) return refused(*row.averages);
    if (values.filter != SNoiseTableRow::EFilter::kKeep &&
        FAILED(row.filter->put_Value(values.filter == SNoiseTableRow::EFilter::kFFT ? VARIANT_TRUE : VARIANT_FALSE)))
        return refused(*row.filter);
    return S_OK;
}

}  // namespace vorn

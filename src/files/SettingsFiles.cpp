// Settings files: see SettingsFiles.h.
#include "files/SettingsFiles.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include "files/SystemSettings.h"
#include "files/TreeLinks.h"
#include "stream/DataStream.h"

namespace vorn {

namespace {

constexpr std::u16string_view kEntrySeparator = u"\r\n";

// The calling thread's last Win32 error as an HRESULT (E_FAIL when none is
// recorded).
HRESULT LastError() noexcept {
    const DWORD error = GetLastError();
    return error != 0 ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

// A file in a reason: "the settings file D:\User\a.dcs", and where that
// path lands on this machine when it differs.
std::string FileText(const std::string& path) {
    std::string text = "the settings file " + path;
    char mapped[_MAX_PATH * 4];
    const DWORD length = VornMapPathA(path.c_str(), mapped, sizeof mapped);
    if (length > 0 && length < sizeof mapped && path != mapped) text += std::string(" (") + mapped + ")";
    return text;
}

// What a failing file call's HRESULT means, for reasons: "access denied
// (Win32 error 5)".
std::string SystemErrorText(HRESULT hr) {
    struct SKnown {
        DWORD error;
        const char* text;
    };
    static constexpr SKnown kKnown[] = {
        {ERROR_FILE_NOT_FOUND, "the file does not exist"},
        {ERROR_PATH_NOT_FOUND, "the directory does not exist"},
        {ERROR_ACCESS_DENIED, "access denied"},
        {ERROR_SHARING_VIOLATION, "the file is in use"},
        {ERROR_DISK_FULL, "the disk is full"},
        {ERROR_TOO_MANY_OPEN_FILES, "too many open files"},
        {ERROR_FILENAME_EXCED_RANGE, "the name is too long"},
        {ERROR_INVALID_NAME, "the name is not valid"},
    };
    if (static_cast<DWORD>(hr) >> 16 == 0x8007u) {
        const DWORD error = static_cast<DWORD>(hr) & 0xFFFFu;
        for (const SKnown& known : kKnown)
            if (known.error == error) return std::string(known.text) + " (Win32 error " + std::to_string(error) + ")";
        return "Win32 error " + std::to_string(error);
    }
    if (hr == STG_E_MEDIUMFULL) return "the medium is full";
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(hr));
    return text;
}

std::u16string_view TextOf(const CParameterString& parameter) {
    BSTR value = parameter.Value();
    return parameter.IsValid() && value ? std::u16string_view(value, SysStringLen(value)) : std::u16string_view();
}

// A new BSTR holding `text`; E_OUTOFMEMORY is thrown.
BstrPtr MakeBstr(std::u16string_view text) {
    BstrPtr out(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!out) ThrowHr(E_OUTOFMEMORY, "no memory for a text");
    return out;
}

char16_t FoldCase(char16_t c) noexcept { return (c >= u'A' && c <= u'Z') ? static_cast<char16_t>(c - u'A' + u'a') : c; }

// Name order ignoring letter case, as the instrument's file system lists;
// names equal but for case in their byte order.
bool ListedBefore(const std::u16string& a, const std::u16string& b) noexcept {
    const auto folded = std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                                     [](char16_t x, char16_t y) { return FoldCase(x) < FoldCase(y); });
    const auto foldedAfter = std::lexicographical_compare(
        b.begin(), b.end(), a.begin(), a.end(), [](char16_t x, char16_t y) { return FoldCase(x) < FoldCase(y); });
    return folded || (!foldedAfter && a < b);
}

// A file name that can stand in the list and be opened from it: no list
// separator, no path, no wildcard, not a temporary file of a save.
bool IsListableName(const char* name) noexcept {
    const std::string_view text(name);
    if (text.empty() || text.find_first_of("\r\n\\/:*?") != std::string_view::npos) return false;
    return !VornIsTemporaryFileNameA(name);
}

// Closes a file handle when it goes out of scope.
class CFileHandle {
public:
    explicit CFileHandle(HANDLE handle) noexcept : handle_(handle) {}
    ~CFileHandle() {
        if (Valid()) CloseHandle(handle_);
    }
    CFileHandle(const CFileHandle&) = delete;
    CFileHandle& operator=(const CFileHandle&) = delete;
    bool Valid() const noexcept { return handle_ != INVALID_HANDLE_VALUE; }
    HANDLE Get() const noexcept { return handle_; }
    // Closes now: S_OK or the close's error.
    HRESULT Close() noexcept {
        const BOOL closed = CloseHandle(std::exchange(handle_, INVALID_HANDLE_VALUE));
        return closed ? S_OK : LastError();
    }

private:
    HANDLE handle_;
};

// True when `bytes` begin with the stream mark and a record named like
// `group`: what a settings file of that group starts with.
bool IsSettingsStreamOf(const BYTE* bytes, std::size_t size, const CStreamGroup& group) {
    constexpr std::size_t kNameAt = sizeof(WORD) + kRecordHeaderSize;
    if (size < kNameAt) return false;
    WORD mark = 0;
    WORD nameLength = 0;
    std::memcpy(&mark, bytes, sizeof mark);
    std::memcpy(&nameLength, bytes + sizeof(WORD) + sizeof(DWORD), sizeof nameLength);
    if (mark != kStreamMark || nameLength >= kMaxNameLength || size < kNameAt + nameLength) return false;
    return CRecordName(group).Equals(reinterpret_cast<const char*>(bytes + kNameAt), nameLength);
}

}  // namespace

// ---------------------------------------------------------------------------
// File names and files
// ---------------------------------------------------------------------------
bool ComposeFileName(const std::string& name, const std::string& extension, std::string& path) {
    path.clear();
    if (name.empty()) return true;
    if (name.size() >= _MAX_PATH || extension.size() >= _MAX_EXT) return false;
    char drive[_MAX_DRIVE] = {};
    char dir[_MAX_DIR] = {};
    char file[_MAX_FNAME] = {};
    char ext[_MAX_EXT] = {};
    _splitpath(name.c_str(), drive, dir, file, ext);
    if (file[0] == '\0') return false;
    std::string directory = dir;
    if (directory.empty())
        directory = kSettingsDirectory;
    else if (directory[0] != '\\' && directory[0] != '/')
        directory = kSettingsDirectory + directory;
    std::string suffix = (extension.empty() || extension == ".") ? std::string(ext) : extension;
    if (suffix == ".") suffix.clear();
    // The length _makepath gives: a separator after the directory and a dot
    // before the extension where they are missing.
    const std::size_t length = std::strlen(drive[0] ? drive : kSettingsDrive) + directory.size() +
                               (directory.back() == '\\' || directory.back() == '/' ? 0 : 1) + std::strlen(file) +
                               suffix.size() + (suffix.empty() || suffix[0] == '.' ? 0 : 1);
    if (length >= _MAX_PATH) return false;
    char composed[_MAX_PATH];
    _makepath(composed, drive[0] ? drive : kSettingsDrive, directory.c_str(), file, suffix.c_str());
    path = composed;
    return true;
}

HRESULT WriteFileReplacing(const std::string& path, const void* data, std::size_t size) noexcept {
    if (path.empty() || size > 0xFFFFFFFFu) return E_INVALIDARG;
    return Guarded([&]() -> HRESULT {
        char drive[_MAX_DRIVE] = {};
        char dir[_MAX_DIR] = {};
        _splitpath(path.c_str(), drive, dir, nullptr, nullptr);
        // One level, as the user's directory may not exist on a fresh drive;
        // when it cannot be made the write below reports why.
        if (dir[0] != '\0') CreateDirectoryA((std::string(drive) + dir).c_str(), nullptr);
        return VornReplaceFileA(path.c_str(), data, static_cast<DWORD>(size), 0) ? S_OK : LastError();
    });
}

// ---------------------------------------------------------------------------
// CParameterSaveFile
// ---------------------------------------------------------------------------
void CParameterSaveFile::PostConstruct() {
    extension_ = SiblingNamedAfter<CParameterString>(*this, "Ext");
    if (!extension_) extension_ = SiblingOf<CParameterString>(*this, "SaveFileNameExt");
}

STDMETHODIMP CParameterSaveFile::put_Value(BSTR bstrValue) {
    if (!bstrValue) return CParameterString::put_Value(bstrValue);
    return ChangeValue([&]() -> HRESULT {
        std::string path;
        const std::string name = Narrow(std::u16string_view(bstrValue, SysStringLen(bstrValue)));
        if (!ComposeFileName(name, Extension(), path))
            return Fail(E_INVALIDARG, "'" + name + "' makes no settings file path (no file name, or " +
                                          std::to_string(_MAX_PATH) + " characters or more)");
        return SetValue(MakeBstr(Widen(path)).get());
    });
}

std::string CParameterSaveFile::Extension() const {
    if (!extension_) return {};
    std::string text = Narrow(TextOf(*extension_));
    return text == "." ? std::string() : text;
}

std::string CParameterSaveFile::FilePath() const {
    std::string path;
    if (!ComposeFileName(Narrow(TextOf(*this)), Extension(), path)) path.clear();
    return path;
}

std::string CParameterSaveFile::Directory() const {
    const std::string path = FilePath();
    if (path.empty()) return std::string(kSettingsDrive) + kSettingsDirectory;
    char drive[_MAX_DRIVE] = {};
    char dir[_MAX_DIR] = {};
    _splitpath(path.c_str(), drive, dir, nullptr, nullptr);
    return std::string(drive) + dir;
}

// ---------------------------------------------------------------------------
// CParameterSaveFileTrigger
// ---------------------------------------------------------------------------
void CParameterSaveFileTrigger::PostConstruct() {
    name_ = SiblingNamedAfter<CParameterSaveFile>(*this, "Name");
    selection_ = SiblingOf<CParameterSelectedSavedFile>(*this, "SelectedSavedFile");
}

STDMETHODIMP CParameterSaveFileTrigger::put_Value(VARIANT_BOOL bValue) {
    return ChangeValue([&]() -> HRESULT {
        const HRESULT stored = SetValue(bValue != 0);
        if (FAILED(stored) || bValue != VARIANT_TRUE) return stored;
        const HRESULT saved = SaveSettingsFile();
        return FAILED(saved) ? saved : S_OK;
    });
}

HRESULT CParameterSaveFileTrigger::SaveSettingsFile() {
    auto* group = dynamic_cast<CStreamGroup*>(Parent());
    if (!name_ || !group) return S_OK;
    const std::string path = name_->FilePath();
    if (path.empty()) return S_OK;

    // The group's stream in memory first, sized to what GetSizeMax reports,
    // then the whole block into the file.
    ComPtr<IStream> stream;
    HRESULT hr = CreateStreamOnHGlobal(nullptr, TRUE, stream.put());
    if (FAILED(hr)) return hr;
    IPersistStream* persist = group->PersistStream();
    ULARGE_INTEGER size{};
    if (FAILED(hr = persist->GetSizeMax(&size))) return hr;
    if (FAILED(hr = stream->SetSize(size))) return hr;
    if (FAILED(hr = persist->Save(stream.get(), TRUE))) return hr;
    HGLOBAL block = nullptr;
    if (FAILED(hr = GetHGlobalFromStream(stream.get(), &block))) return hr;
    const void* bytes = GlobalLock(block);
    if (!bytes) return E_OUTOFMEMORY;
    hr = WriteFileReplacing(path, bytes, GlobalSize(block));
    GlobalUnlock(block);
    if (FAILED(hr)) return Fail(hr, FileText(path) + " cannot be written: " + SystemErrorText(hr));
    if (selection_) selection_->RefreshList(nullptr);
    return hr;
}

// ---------------------------------------------------------------------------
// CParameterSelectedSavedFile
// ---------------------------------------------------------------------------
void CParameterSelectedSavedFile::PostConstruct() {
    group_ = dynamic_cast<CStreamGroup*>(Parent());
    if (!group_) return;
    list_ = SiblingOf<CParameterString>(*this, "SavedFilesList");
    const std::string_view own = BaseName() ? BaseName() : "";
    constexpr std::string_view kSelected = "Selected";
    if (!list_ && own.starts_with(kSelected))
        list_ = SiblingOf<CParameterString>(*this, std::string(own.substr(kSelected.size())) + "List");
    for (CDatabaseObjectImpl* const* child = group_->Children(); child && *child && !name_; ++child)
        name_ = dynamic_cast<CParameterSaveFile*>(*child);
    companion_ = SiblingOf<CParameterBoolean>(*this, "DCSettingsLoaded");
    if (!companion_) companion_ = SiblingOf<CParameterBoolean>(*this, "UsableCalibrationFile");
    pleaseSelect_ = std::string_view(group_->BaseName() ? group_->BaseName() : "") != "AmplitudeNoisePremeas";
    if (name_) name_->AddDependant(this);
}

std::vector<std::u16string> CParameterSelectedSavedFile::Entries() const {
    std::vector<std::u16string> entries;
    if (!list_ || !list_->IsValid()) return entries;
    std::u16string_view text = TextOf(*list_);
    for (;;) {
        const std::size_t end = text.find(kEntrySeparator);
        entries.emplace_back(text.substr(0, end));
        if (end == std::u16string_view::npos) break;
        text.remove_prefix(end + kEntrySeparator.size());
    }
    return entries;
}

std::vector<std::u16string> CParameterSelectedSavedFile::ListFiles() const {
    std::vector<std::u16string> files;
    const std::string directory = name_ ? name_->Directory() : std::string(kSettingsDrive) + kSettingsDirectory;
    const std::string pattern = directory + "*" + (name_ ? name_->Extension() : std::string());
    WIN32_FIND_DATAA found{};
    HANDLE search = FindFirstFileA(pattern.c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return files;
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 && IsListableName(found.cFileName))
            files.push_back(Widen(found.cFileName));
    } while (FindNextFileA(search, &found));
    FindClose(search);
    std::sort(files.begin(), files.end(), ListedBefore);
    return files;
}

void CParameterSelectedSavedFile::RefreshList(const char16_t* select) {
    if (!list_) return;
    std::u16string selected;
    if (select) {
        selected = select;
    } else if (IsValid()) {
        const std::vector<std::u16string> old = Entries();
        if (value_ < old.size()) selected = old[value_];
    }

    std::vector<std::u16string> entries{kDefaultEntry};
    if (pleaseSelect_) entries.emplace_back(kPleaseSelectEntry);
    const std::size_t room = std::max<std::size_t>(std::size_t{maximum_} + 1, entries.size());
    for (std::u16string& file : ListFiles()) {
        if (entries.size() >= room) break;
        entries.push_back(std::move(file));
    }
    std::u16string text;
    for (const std::u16string& entry : entries) {
        if (!text.empty()) text += kEntrySeparator;
        text += entry;
    }
    if (!list_->IsValid() || TextOf(*list_) != text) list_->SetValue(MakeBstr(text).get());

    const auto at = std::find(entries.begin(), entries.end(), selected);
    const ULONG index = at != entries.end() ? static_cast<ULONG>(at - entries.begin()) : (pleaseSelect_ ? 1u : 0u);
    if (!IsValid() || index != value_) SetValue(index);
}

STDMETHODIMP CParameterSelectedSavedFile::Reset() {
    return UnderWriteLock([&]() -> HRESULT {
        const HRESULT hr = CParameterIntegerSetting::Reset();
        if (FAILED(hr)) return hr;
        // The default index names one of the fixed entries.
        RefreshList(value_ == 1 && pleaseSelect_ ? kPleaseSelectEntry : kDefaultEntry);
        if (companion_) companion_->SetValue(false);
        return S_OK;
    });
}

void CParameterSelectedSavedFile::Recalculate(CDatabaseObjectImpl* source) {
    if (source == name_) RefreshList(nullptr);
}

bool CParameterSelectedSavedFile::OnDependencyChanged(CDatabaseObjectImpl* source) {
    Recalculate(source);
    return false;
}

STDMETHODIMP CParameterSelectedSavedFile::put_Value(ULONG udwValue) {
    if (!list_) return CParameterIntegerSetting::put_Value(udwValue);
    return ChangeValue([&]() -> HRESULT {
        const std::vector<std::u16string> entries = Entries();
        if (udwValue >= entries.size())
            return Fail(E_INVALIDARG, "index " + std::to_string(udwValue) + " is not below the " +
                                          std::to_string(entries.size()) + " entries of the list of files");
        const std::u16string& entry = entries[udwValue];
        if (entry == kDefaultEntry) {
            if (group_) {
                // The group's defaults, its system settings' included.
                const CDefaultsResetScope defaults;
                const HRESULT hr = group_->ResetPutValue();
                if (FAILED(hr)) return hr;
            }
            if (companion_) companion_->SetValue(false);
        } else if (entry != kPleaseSelectEntry) {
            std::string path;
            const HRESULT hr = Recall(entry, path);
            if (FAILED(hr)) return hr;
            // The file recalled is the file a save writes next, whatever
            // name the file itself holds (it may have been copied or moved).
            if (name_) name_->SetValue(MakeBstr(Widen(path)).get());
            if (companion_) companion_->SetValue(true);
        }
        RefreshList(entry.c_str());
        return S_OK;
    });
}

HRESULT CParameterSelectedSavedFile::Recall(const std::u16string& entry, std::string& path) {
    const std::string name = Narrow(entry);
    if (!group_ || !IsListableName(name.c_str()))
        return Fail(E_INVALIDARG, "'" + name + "' is not a file that can be listed");
    path = (name_ ? name_->Directory() : std::string(kSettingsDrive) + kSettingsDirectory) + name;
    const std::string file = FileText(path);

    CFileHandle handle(
        CreateFileA(path.c_str(), GENERIC_READ, 0, nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!handle.Valid()) {
        const HRESULT hr = LastError();
        return Fail(hr, file + " cannot be opened: " + SystemErrorText(hr));
    }
    LARGE_INTEGER size{};
    if (!GetFileSizeEx(handle.Get(), &size)) {
        const HRESULT hr = LastError();
        return Fail(hr, file + " cannot be read: " + SystemErrorText(hr));
    }
    // A settings stream's positions are 32-bit.
    if (size.QuadPart > 0xFFFFFFFFll) return Fail(E_FAIL, file + " is larger than 4 GiB");
    const auto bytes = static_cast<DWORD>(size.QuadPart);
    const auto notOfGroup = [&] {
        const CRecordName record(*group_);
        return file + " is not a settings file of " + group_->FullName() +
               " (it must begin with the mark 0x5001 and a record named " +
               std::string(record.Data(), record.Length()) + ")";
    };
    if (bytes < sizeof(WORD) + kRecordHeaderSize) return Fail(E_FAIL, notOfGroup());
    HGLOBAL block = GlobalAlloc(GMEM_MOVEABLE, bytes);
    if (!block) return E_OUTOFMEMORY;
    auto* data = static_cast<BYTE*>(GlobalLock(block));
    DWORD got = 0;
    const BOOL read = data && ReadFile(handle.Get(), data, bytes, &got, nullptr);
    HRESULT hr = !data ? E_OUTOFMEMORY : (!read ? LastError() : S_OK);
    std::string reason = FAILED(hr) && data ? file + " cannot be read: " + SystemErrorText(hr) : std::string();
    if (SUCCEEDED(hr) && (got != bytes || !IsSettingsStreamOf(data, bytes, *group_))) {
        hr = E_FAIL;
        reason = notOfGroup();
    }
    if (data) GlobalUnlock(block);
    handle.Close();

    ComPtr<IStream> stream;
    if (SUCCEEDED(hr)) hr = CreateStreamOnHGlobal(block, TRUE, stream.put());
    if (FAILED(hr)) {
        if (!stream) GlobalFree(block);
        return reason.empty() ? hr : Fail(hr, reason);
    }
    hr = group_->PersistStream()->Load(stream.get());
    if (FAILED(hr)) return Fail(hr, file + ": " + TakeErrorDescription());
    return hr;
}

}  // namespace vorn

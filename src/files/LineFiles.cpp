// Limit-line and transducer-factor files: see LineFiles.h and
// docs/linefiles.md.
#include "files/LineFiles.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "core/DBNotificationThread.h"
#include "files/SettingsFiles.h"
#include "files/TreeLinks.h"
#include "stream/DataStream.h"

namespace vorn {

namespace {

// Members of a line that the database derives: a change of them is no edit
// of the line and writes no file (LLCheckPassed changes with every sweep).
constexpr std::string_view kDerivedMembers[] = {"Compatible", "LLCheckPassed"};
constexpr char16_t kNoFactor[] = u"** None **";

HRESULT LastError() noexcept {
    const DWORD error = GetLastError();
    return error != 0 ? HRESULT_FROM_WIN32(error) : E_FAIL;
}

bool IsMissing(HRESULT hr) noexcept {
    return hr == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) || hr == HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND);
}

std::string HexText(std::size_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "0x%zX (%zu)", value, value);
    return text;
}

// The file in a reason, with where it lands on this machine when that
// differs.
std::string FileText(const SLineFileKind& kind, const std::string& path) {
    std::string text = std::string("the ") + kind.what + " " + path;
    char mapped[_MAX_PATH * 4];
    const DWORD length = VornMapPathA(path.c_str(), mapped, sizeof mapped);
    if (length > 0 && length < sizeof mapped && path != mapped) text += std::string(" (") + mapped + ")";
    return text;
}

// FNV-1a over the bytes; never 0, which stands for "nothing written".
ULONGLONG HashOf(const std::vector<BYTE>& bytes) noexcept {
    ULONGLONG hash = 0xCBF29CE484222325ull;
    for (BYTE b : bytes) hash = (hash ^ b) * 0x100000001B3ull;
    return hash ? hash : 1;
}

bool NotificationsSuppressed() noexcept {
    const CDBNotificationThread* thread = CDBNotificationThread::Instance();
    return !thread || thread->Suppressed();
}

// The SaveFile rule of `member`.
CParameterLineSaveFile* RuleOf(CDatabaseObjectImpl* member) {
    return ChildOf<CParameterLineSaveFile>(member, "SaveFile");
}

// ---------------------------------------------------------------------------
// The structure of a record, checked on the bytes before anything is loaded
// ---------------------------------------------------------------------------
class CRecordCheck {
public:
    explicit CRecordCheck(const BYTE* data) noexcept : data_(data) {}

    // Checks the record at `at`, which must end by `end`; its end, or
    // nothing with Offset() and Problem() telling what is wrong.
    bool Record(std::size_t at, std::size_t end, int depth, std::size_t& recordEnd) {
        if (end - at < kRecordHeaderSize)
            return Bad(at, "a record header takes 6 bytes, " + std::to_string(end - at) + " remain");
        const DWORD size = Long(at);
        const WORD nameLength = Short(at + 4);
        if (nameLength >= kMaxNameLength)
            return Bad(at + 4, "a name length of " + std::to_string(nameLength) + " (128 or more)");
        if (size < kRecordHeaderSize + nameLength)
            return Bad(at, "a record size of " + std::to_string(size) + ", smaller than its header and name");
        if (size > end - at)
            return Bad(at, "a record size of " + std::to_string(size) + " that reaches past " +
                               (depth == 1 ? std::string("the end of the file") : "the end of its group") + " at " +
                               HexText(end));
        recordEnd = at + size;
        const std::size_t payload = at + kRecordHeaderSize + nameLength;
        if (recordEnd - payload < 2) return Bad(payload, "a record without payload");
        const WORD code = Short(payload);
        if (depth == 1 && code != kGroupVersion)
            return Bad(payload, "version " + std::to_string(code) + " where the record of a member, a group, has 1");
        return code == kGroupVersion ? Group(payload, recordEnd, depth) : Parameter(payload, recordEnd);
    }

    std::size_t Offset() const noexcept { return offset_; }
    const std::string& Problem() const noexcept { return problem_; }

private:
    bool Group(std::size_t payload, std::size_t end, int depth) {
        if (depth >= kMaxRecordDepth) return Bad(payload, "records nested deeper than " + std::to_string(depth));
        if (end - payload < 6) return Bad(payload, "a group payload without its child count");
        const DWORD count = Long(payload + 2);
        std::size_t at = payload + 6;
        for (DWORD i = 0; i < count; ++i)
            if (!Record(at, end, depth + 1, at)) return false;
        if (at != end)
            return Bad(
                at, std::to_string(end - at) + " bytes after the last of " + std::to_string(count) + " child records");
        return true;
    }

    bool Parameter(std::size_t payload, std::size_t end) {
        const std::size_t size = end - payload;
        const WORD code = Short(payload);
        if (size < 4) return Bad(payload, "a parameter payload of " + std::to_string(size) + " bytes");
        const WORD status = Short(payload + 2);
        if (status != kStatusValid && status != kStatusInvalid)
            return Bad(payload + 2, "status " + std::to_string(status) + " (neither 0, valid, nor 1, invalid)");
        const bool valid = status == kStatusValid;
        // The payload sizes a type may have (the variants with stored limits
        // append them, whatever the status).
        std::size_t sizes[2] = {0, 0};
        const char* type = nullptr;
        const auto counted = [&](std::size_t each) {
            return size >= 8 ? 8 + std::size_t{Long(payload + 4)} * each : std::size_t{8};
        };
        switch (code) {
            case kTypeBoolean:
                type = "Boolean";
                sizes[0] = valid ? 6 : 4;
                break;
            case kTypeInteger:
                type = "integer";
                sizes[0] = valid ? 8 : 4;
                sizes[1] = sizes[0] + 8;
                break;
            case kTypeReal:
                type = "real";
                sizes[0] = valid ? 14 : 4;
                sizes[1] = sizes[0] + 16;
                break;
            case kTypeRealArray:
                type = "real array";
                sizes[0] = counted(8);
                break;
            case kTypeIntegerArray:
                type = "integer array";
                sizes[0] = counted(4);
                break;
            case kTypeString:
                type = "string";
                sizes[0] = valid ? counted(2) : 4;
                break;
            default:
                return Bad(payload, "type code " + std::to_string(code) + ", which no member of a line has");
        }
        if (size != sizes[0] && size != sizes[1])
            return Bad(payload, std::string("a ") + type + " payload of " + std::to_string(size) + " bytes, not " +
                                    std::to_string(sizes[0]) + (sizes[1] ? " or " + std::to_string(sizes[1]) : ""));
        return true;
    }

    bool Bad(std::size_t offset, std::string problem) {
        offset_ = offset;
        problem_ = std::move(problem);
        return false;
    }
    WORD Short(std::size_t at) const noexcept {
        WORD v;
        std::memcpy(&v, data_ + at, sizeof v);
        return v;
    }
    DWORD Long(std::size_t at) const noexcept {
        DWORD v;
        std::memcpy(&v, data_ + at, sizeof v);
        return v;
    }

    const BYTE* data_;
    std::size_t offset_ = 0;
    std::string problem_;
};

// Loads the record after the head of a line file's bytes into `member`; the
// offsets of a failure's reason are the file's.
void LoadMemberRecord(CDatabaseObjectImpl& member, const BYTE* file, std::size_t size) {
    ComPtr<IStream> stream;
    ThrowIfFailed(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), "no memory stream for a line file");
    ULONG written = 0;
    ThrowIfFailed(stream->Write(file, static_cast<ULONG>(size), &written), "a line file cannot be copied");
    LARGE_INTEGER start{};
    start.QuadPart = kLineFileHeadSize;
    ThrowIfFailed(stream->Seek(start, STREAM_SEEK_SET, nullptr), "a line file cannot be read back");
    CDataStream data(stream.get());
    if (!LoadRecord(data, member)) ThrowHr(E_FAIL, "the record does not name the member");
}

}  // namespace

// ---------------------------------------------------------------------------
// Directories and names
// ---------------------------------------------------------------------------
std::string LineFileDirectory(const SLineFileKind& kind) {
    const char* root = std::getenv(kLineFilesRootVariable);
    std::string directory = root ? root : "";
    while (!directory.empty() && (directory.back() == '\\' || directory.back() == '/')) directory.pop_back();
    // A root of "\" or "/" alone is the drive's or the system's root.
    if (directory.empty() && root && *root) directory = "\\";
    if (directory.empty()) return {};
    if (directory.back() != '\\') directory += '\\';
    return directory + kind.directory;
}

std::string LineFileNameProblem(std::string_view name, const SLineFileKind& kind) {
    if (name.empty()) return "the name is empty";
    if (name.size() + std::strlen(kind.extension) > kMaxLineFileName)
        return "the name has " + std::to_string(name.size()) + " bytes; with \"" + kind.extension + "\" at most " +
               std::to_string(kMaxLineFileName) + " fit a file name";
    for (char c : name) {
        if (static_cast<unsigned char>(c) < 0x20) return "the name holds a control character";
        if (std::strchr("\\/:*?\"<>|", c))
            return std::string("the name holds '") + c + "', which a file name cannot (a path or a wildcard)";
    }
    if (name.find("..") != std::string_view::npos) return "the name holds \"..\"";
    if (name.front() == '.') return "the name starts with '.'";
    return {};
}

// ---------------------------------------------------------------------------
// CParameterLineSaveFile
// ---------------------------------------------------------------------------
void CParameterLineSaveFile::PostConstruct() {
    owner_ = dynamic_cast<CStreamGroup*>(Parent());
    if (!owner_) return;
    const LONG index = owner_->Index();
    index_ = index >= 0 && index < LONG{kLineFileMembers} ? static_cast<WORD>(index) : 0;
    exists_ = SiblingOf<CParameterBoolean>(*this, "Exists");
    name_ = SiblingOf<CParameterString>(*this, "Name");
    for (CDatabaseObjectImpl* const* child = owner_->Children(); child && *child; ++child) {
        const std::string_view base = (*child)->BaseName() ? (*child)->BaseName() : "";
        if (*child != this &&
            std::find(std::begin(kDerivedMembers), std::end(kDerivedMembers), base) == std::end(kDerivedMembers))
            (*child)->AddDependant(this);
    }
    if (index == 0) {
        first_ = this;
        directory_ = LineFileDirectory(kind_);
        if (!directory_.empty()) {
            WIN32_FIND_DATAA found{};
            HANDLE search = FindFirstFileA(directory_.c_str(), &found);
            if (search != INVALID_HANDLE_VALUE)
                FindClose(search);
            else
                CreateDirectoryA(directory_.c_str(), nullptr);  // a failure shows at the first write
        }
    } else {
        first_ =
            RuleOf(ChildOf<CDatabaseObjectImpl>(owner_->Parent(), owner_->BaseName() ? owner_->BaseName() : "", 0));
    }
}

const std::string& CParameterLineSaveFile::Directory() const noexcept {
    return first_ ? first_->directory_ : directory_;
}

void CParameterLineSaveFile::Remember(std::string name, const std::vector<BYTE>& bytes) {
    remembered_ = std::move(name);
    writtenHash_ = HashOf(bytes);
}

std::string CParameterLineSaveFile::OwnerName() const { return TextOf(name_); }

std::string CParameterLineSaveFile::PathOf(const std::string& name) const {
    return Directory() + "\\" + name + kind_.extension;
}

STDMETHODIMP CParameterLineSaveFile::put_Value(VARIANT_BOOL bValue) {
    return ChangeValue([&]() -> HRESULT {
        const HRESULT stored = SetValue(bValue != 0);
        if (FAILED(stored) || bValue != VARIANT_TRUE) return stored;
        const HRESULT synced = SyncFile(true);
        return FAILED(synced) ? synced : S_OK;
    });
}

STDMETHODIMP CParameterLineSaveFile::AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) {
    return AssignWithFlags(
        udwCtrlFlags,
        [&]() -> HRESULT {
            const HRESULT stored = SetValue(bValue != 0);
            if (FAILED(stored) || bValue != VARIANT_TRUE) return stored;
            const HRESULT synced = SyncFile(true);
            return FAILED(synced) ? synced : S_OK;
        },
        [&] { value_ = bValue != 0 ? 1 : 0; });
}

bool CParameterLineSaveFile::LoadPayload(CDataStream& stream) {
    const bool loaded = CParameterBoolean::LoadPayload(stream);
    remembered_ = OwnerName();
    writtenHash_ = 0;
    return loaded;
}

void CParameterLineSaveFile::Recalculate(CDatabaseObjectImpl*) {
    if (NotificationsSuppressed()) return;
    // Inside another parameter's write: what fails here must not fail it.
    Guarded([&] { return SyncFile(false); });
}

bool CParameterLineSaveFile::OnDependencyChanged(CDatabaseObjectImpl* source) {
    Recalculate(source);
    return false;
}

HRESULT CParameterLineSaveFile::DeleteNamed(const std::string& name, bool report) {
    const std::string path = PathOf(name);
    if (DeleteFileA(path.c_str())) return S_OK;
    const HRESULT hr = LastError();
    if (IsMissing(hr)) return S_OK;
    return report
               ? Fail(hr, FileText(kind_, path) + " cannot be deleted: Win32 error " + std::to_string(HRESULT_CODE(hr)))
               : hr;
}

HRESULT CParameterLineSaveFile::SyncFile(bool explicitWrite) {
    if (Directory().empty() || !owner_) return S_OK;
    const std::string name = OwnerName();
    if (!remembered_.empty() && remembered_ != name) {
        const HRESULT deleted = DeleteNamed(remembered_, explicitWrite);
        if (FAILED(deleted)) return deleted;
        remembered_.clear();
        writtenHash_ = 0;
    }
    if (name.empty()) return S_OK;
    const std::string problem = LineFileNameProblem(name, kind_);
    if (!problem.empty())
        return explicitWrite ? Fail(E_INVALIDARG, "'" + name + "' cannot name a " + kind_.what + ": " + problem)
                             : E_INVALIDARG;
    if (!IsTrue(exists_)) {
        const HRESULT deleted = DeleteNamed(name, explicitWrite);
        if (FAILED(deleted)) return deleted;
        remembered_.clear();
        writtenHash_ = 0;
        return S_OK;
    }
    const std::vector<BYTE> bytes = LineFileBytes(*owner_, index_);
    const ULONGLONG hash = HashOf(bytes);
    if (!explicitWrite && hash == writtenHash_ && remembered_ == name) return S_OK;
    const std::string path = PathOf(name);
    const HRESULT written = WriteFileReplacing(path, bytes.data(), bytes.size());
    if (FAILED(written))
        return explicitWrite ? Fail(written, FileText(kind_, path) + " cannot be written: Win32 error " +
                                                 std::to_string(HRESULT_CODE(written)))
                             : written;
    remembered_ = name;
    writtenHash_ = hash;
    return S_OK;
}

// ---------------------------------------------------------------------------
// The file's bytes, and reading files back
// ---------------------------------------------------------------------------
std::vector<BYTE> LineFileBytes(CDatabaseObjectImpl& member, WORD index) {
    const std::size_t size = kLineFileHeadSize + RecordSizeOf(member);
    ComPtr<IStream> stream;
    ThrowIfFailed(CreateStreamOnHGlobal(nullptr, TRUE, stream.put()), "no memory stream for a line file");
    {
        CDataStream data(stream.get());
        data.WriteShort(kStreamMark);
        data.WriteShort(index);
        SaveRecord(data, member);
        data.Flush();
    }
    HGLOBAL block = nullptr;
    ThrowIfFailed(GetHGlobalFromStream(stream.get(), &block), "no memory block behind a line file's stream");
    const auto* bytes = static_cast<const BYTE*>(GlobalLock(block));
    if (!bytes) ThrowHr(E_OUTOFMEMORY, "the memory of a line file cannot be locked");
    std::vector<BYTE> out(bytes, bytes + std::min<std::size_t>(size, GlobalSize(block)));
    GlobalUnlock(block);
    return out;
}

HRESULT LoadLineFileBytes(CGroupImpl& collection, const SLineFileKind& kind, const BYTE* data, std::size_t size,
                          const std::string& fileName, std::string& reason) {
    reason.clear();
    const std::string file = std::string("the ") + kind.what + " " + fileName;
    const auto refuse = [&](HRESULT hr, std::size_t offset, const std::string& problem) {
        reason = file + ", offset " + HexText(offset) + ": " + problem;
        return hr;
    };
    const std::size_t extensionLength = std::strlen(kind.extension);
    if (fileName.size() <= extensionLength ||
        fileName.compare(fileName.size() - extensionLength, extensionLength, kind.extension) != 0) {
        reason = file + ": the name does not end in \"" + kind.extension + "\"";
        return E_INVALIDARG;
    }
    std::string name = fileName.substr(0, fileName.size() - extensionLength);
    if (const std::string problem = LineFileNameProblem(name, kind); !problem.empty()) {
        reason = file + ": " + problem;
        return E_INVALIDARG;
    }
    if (size < kLineFileHeadSize)
        return refuse(E_FAIL, 0, std::to_string(size) + " bytes, fewer than the mark and the index take");
    WORD mark = 0;
    WORD index = 0;
    std::memcpy(&mark, data, sizeof mark);
    std::memcpy(&index, data + 2, sizeof index);
    if (mark != kStreamMark) return refuse(E_FAIL, 0, "the mark " + HexText(mark) + " where a line file has 0x5001");
    if (index >= kLineFileMembers)
        return refuse(E_FAIL, 2,
                      "the index " + std::to_string(index) + ", not below " + std::to_string(kLineFileMembers));
    auto* member = dynamic_cast<CStreamGroup*>(collection.FindChild(kind.member, index));
    if (!member) return refuse(E_FAIL, 2, "no member of index " + std::to_string(index) + " to load it into");

    CRecordCheck check(data);
    std::size_t end = 0;
    if (!check.Record(kLineFileHeadSize, size, 1, end)) return refuse(E_FAIL, check.Offset(), check.Problem());
    if (end != size) return refuse(E_FAIL, end, std::to_string(size - end) + " bytes after the record");
    WORD nameLength = 0;
    std::memcpy(&nameLength, data + kLineFileHeadSize + 4, sizeof nameLength);
    const CRecordName expected(*member);
    if (!expected.Equals(reinterpret_cast<const char*>(data + kLineFileHeadSize + kRecordHeaderSize), nameLength))
        return refuse(
            E_FAIL, kLineFileHeadSize + kRecordHeaderSize,
            "a record named '" +
                std::string(reinterpret_cast<const char*>(data + kLineFileHeadSize + kRecordHeaderSize), nameLength) +
                "' where index " + std::to_string(index) + " needs '" +
                std::string(expected.Data(), expected.Length()) + "'");

    return Guarded([&]() -> HRESULT {
        CWriteLock lock;
        // The member's own record first: should the load fail after all,
        // the member gets it back and no half-loaded line is left.
        const std::vector<BYTE> before = LineFileBytes(*member, index);
        try {
            LoadMemberRecord(*member, data, size);
        } catch (const ComError& e) {
            LoadMemberRecord(*member, before.data(), before.size());
            reason = file + ", offset " + HexText(kLineFileHeadSize) + ": the record cannot be loaded: " + e.what();
            return e.hr();
        }
        member->ClearHoldsDefaults();
        if (CParameterLineSaveFile* rule = RuleOf(member))
            rule->Remember(std::move(name), LineFileBytes(*member, index));
        for (CDatabaseObjectImpl* const* child = member->Children(); child && *child; ++child)
            (*child)->PropagateChange();
        return S_OK;
    });
}

HRESULT LoadLineFile(CGroupImpl& collection, const SLineFileKind& kind, const std::string& path, std::string& reason) {
    reason.clear();
    char fileName[_MAX_FNAME] = {};
    char extension[_MAX_EXT] = {};
    _splitpath(path.c_str(), nullptr, nullptr, fileName, extension);
    const auto failed = [&](const std::string& what) {
        const HRESULT hr = LastError();
        reason = FileText(kind, path) + " cannot be " + what + ": Win32 error " + std::to_string(HRESULT_CODE(hr));
        return hr;
    };
    HANDLE handle = CreateFileA(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return failed("opened");
    LARGE_INTEGER size{};
    std::vector<BYTE> bytes;
    DWORD got = 0;
    bool read = GetFileSizeEx(handle, &size) != 0;
    if (read && size.QuadPart > kMaxLineFileSize) {
        CloseHandle(handle);
        reason = FileText(kind, path) + " has " + std::to_string(size.QuadPart) + " bytes, more than any line file";
        return E_FAIL;
    }
    if (read) {
        bytes.resize(static_cast<std::size_t>(size.QuadPart));
        read = ReadFile(handle, bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr) != 0;
    }
    const HRESULT hr = read ? S_OK : failed("read");
    CloseHandle(handle);
    if (FAILED(hr)) return hr;
    bytes.resize(got);
    return LoadLineFileBytes(collection, kind, bytes.data(), bytes.size(), std::string(fileName) + extension, reason);
}

SLineFilesRead LoadLineFiles(CGroupImpl& collection, const SLineFileKind& kind) {
    SLineFilesRead result;
    const CParameterLineSaveFile* rule = RuleOf(collection.FindChild(kind.member, 0));
    const std::string directory = rule ? rule->Directory() : std::string();
    if (directory.empty()) return result;
    std::vector<std::string> names;
    WIN32_FIND_DATAA found{};
    HANDLE search = FindFirstFileA((directory + "\\*" + kind.extension).c_str(), &found);
    if (search == INVALID_HANDLE_VALUE) return result;
    do {
        if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) == 0 && !VornIsTemporaryFileNameA(found.cFileName))
            names.emplace_back(found.cFileName);
    } while (FindNextFileA(search, &found));
    FindClose(search);
    for (const std::string& name : names) {
        std::string reason;
        std::string path = directory;
        path += '\\';
        path += name;
        if (SUCCEEDED(LoadLineFile(collection, kind, path, reason)))
            ++result.loaded;
        else
            result.refused.push_back(std::move(reason));
    }
    return result;
}

// ---------------------------------------------------------------------------
// The factor rules
// ---------------------------------------------------------------------------
void SFactorPartners::Bind(const CDatabaseObjectImpl& node) {
    CGroupImpl* collection = FromRoot<CGroupImpl>(node, kTransducerFactorFiles.collection);
    for (WORD i = 0; i < kLineFileMembers; ++i) {
        CDatabaseObjectImpl* factor = ChildOf<CDatabaseObjectImpl>(collection, kTransducerFactorFiles.member, i);
        exists[i] = ChildOf<CParameterBoolean>(factor, "Exists");
        name[i] = ChildOf<CParameterString>(factor, "Name");
    }
}

void CParameterTransducerFactorNames::PostConstruct() {
    factors_.Bind(*this);
    for (WORD i = 0; i < kLineFileMembers; ++i) {
        if (factors_.exists[i]) factors_.exists[i]->AddDependant(this);
        if (factors_.name[i]) factors_.name[i]->AddDependant(this);
    }
}

bool CParameterTransducerFactorNames::Update() {
    std::u16string text = kNoFactor;
    for (WORD i = 0; i < kLineFileMembers; ++i) {
        const CParameterString* name = factors_.name[i];
        if (!IsTrue(factors_.exists[i]) || !name || !name->IsValid() || !name->Value()) continue;
        const std::u16string_view entry(name->Value(), SysStringLen(name->Value()));
        if (entry.empty() || entry.find(u':') != std::u16string_view::npos) continue;
        text += u':';
        text += entry;
    }
    if (IsValid() && Value() && std::u16string_view(Value(), SysStringLen(Value())) == text) return false;
    BstrPtr value(SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
    if (!value) ThrowHr(E_OUTOFMEMORY, "no memory for the list of transducer factors");
    SetValue(value.get());
    return true;
}

void CParameterCountValidTDF::PostConstruct() {
    factors_.Bind(*this);
    for (CParameterBoolean* exists : factors_.exists)
        if (exists) exists->AddDependant(this);
}

bool CParameterCountValidTDF::Update() {
    ULONG count = 0;
    for (const CParameterBoolean* exists : factors_.exists)
        if (IsTrue(exists)) ++count;
    if (IsValid() && count == value_) return false;
    SetValue(count);
    return true;
}

void CParameterTDFChanged::PostConstruct() {
    for (WORD i = 0; i < kLineFileMembers; ++i) {
        CDatabaseObjectImpl* factor = SiblingOf<CDatabaseObjectImpl>(
            *this, std::string(kTransducerFactorFiles.member) + "[" + std::to_string(i) + "]");
        for (const char* member : {"Exists", "Name", "PointCount", "Frequency", "Value"})
            if (CDatabaseObjectImpl* followed = ChildOf<CDatabaseObjectImpl>(factor, member))
                followed->AddDependant(this);
    }
}

bool CParameterTDFChanged::OnDependencyChanged(CDatabaseObjectImpl*) {
    if (IsTrue(this)) return false;
    SetValue(true);
    return true;
}

}  // namespace vorn

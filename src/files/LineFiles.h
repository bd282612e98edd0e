// Limit-line and transducer-factor files: every Line of LimitLineData and
// every Factor of TransducerFactorsData is mirrored in a file of its own,
// named after the member's Name, in a directory below the instrument's
// writable system root (the environment variable ZLM_SYSTEM_ROOT_RW):
//
//   limit lines         <root>\ssalimits\<Name>.lin
//   transducer factors  <root>\ssatrd\<Name>.tdf
//
// A file is u16 0x5001 (the settings stream mark), u16 the member's index in
// its collection, then the member's settings record (stream/DataStream.h).
// One design serves both kinds; SLineFileKind holds all that differs.
//
// The member's SaveFile parameter (CParameterLLSaveFile,
// CParameterTDFSaveFile) keeps the file in step with the member: writing
// VARIANT_TRUE writes the file (or deletes it when Exists is false, and
// deletes the file of an old name after a rename); a change of one of the
// member's own settings does the same while notifications are not
// suppressed. LoadLineFile and LoadLineFiles read files back; the database
// reads its directories when it is created. docs/linefiles.md gives the
// design and its reasons.
//
// The selection list of the factors (CParameterTransducerFactorNames), the
// count of existing factors (CParameterCountValidTDF) and the factors'
// Changed flag (CParameterTDFChanged) follow the factors' Exists and Name.
//
// Names come from clients: a name that could leave the directory or is no
// plain file name is never used as one (LineFileNameProblem).
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterString.h"
#include "stream/NodeStream.h"

namespace vorn {

// What sets the two kinds of file apart.
struct SLineFileKind {
    const char* collection;  // the group below the root: "LimitLineData"
    const char* member;      // base name of its members: "Line"
    const char* directory;   // below the root directory: "ssalimits"
    const char* extension;   // ".lin"
    const char* what;        // in reasons: "limit-line file"
};

inline constexpr SLineFileKind kLimitLineFiles{"LimitLineData", "Line", "ssalimits", ".lin", "limit-line file"};
inline constexpr SLineFileKind kTransducerFactorFiles{"TransducerFactorsData", "Factor", "ssatrd", ".tdf",
                                                      "transducer-factor file"};

// The environment variable that roots both directories.
inline constexpr char kLineFilesRootVariable[] = "ZLM_SYSTEM_ROOT_RW";
// Members of each collection; the index of a file is below it.
inline constexpr WORD kLineFileMembers = 100;
// The mark and the index before the record.
inline constexpr std::size_t kLineFileHeadSize = 4;
// The longest file name, extension included, in bytes.
inline constexpr std::size_t kMaxLineFileName = 255;
// The largest file read: far more than a member with every array full.
inline constexpr DWORD kMaxLineFileSize = 1024 * 1024;

// The directory of `kind`'s files: the variable's value without trailing
// separators, "\" and kind.directory; empty when the variable is unset or
// empty (the files are then off).
std::string LineFileDirectory(const SLineFileKind& kind);

// Why `name` (8-bit text, UTF-8) cannot name a file of `kind`, or empty when
// it can: not empty, no path separator, drive or wildcard (none of
// \ / : * ? " < > |), no control character, no "..", not starting with "."
// (the temporary files of a replace do) and within kMaxLineFileName bytes
// with the extension.
std::string LineFileNameProblem(std::string_view name, const SLineFileKind& kind);

// The SaveFile member of a Line or Factor (see the file comment). The
// member with index 0 looks for the directory at binding and creates it
// when missing; the other members use the path it keeps.
class CParameterLineSaveFile : public CParameterBoolean {
public:
    // Binds the owning group, its Exists and Name, and follows the group's
    // own settings: every member but this one and those the database derives
    // (Compatible, LLCheckPassed).
    void PostConstruct() override;
    // The value is stored first; VARIANT_TRUE then brings the file in step
    // (SyncFile). Refusals and file failures are returned with their reason
    // (E_INVALIDARG for a name that cannot be a file name, the Win32 error
    // as an HRESULT for a file that cannot be written or deleted); the value
    // stays stored and nothing propagates then.
    STDMETHODIMP put_Value(VARIANT_BOOL bValue) override;
    // With kAssignNotify as put_Value; without it a raw store.
    STDMETHODIMP AssignValue(VARIANT_BOOL bValue, ULONG udwCtrlFlags) override;
    // The Boolean payload as any Boolean's, then the owner's Name becomes
    // the remembered name: a later rename deletes the right file.
    bool LoadPayload(CDataStream& stream) override;
    // A change of one of the followed members: SyncFile, silently, unless
    // notifications are suppressed or the file would not change. Never
    // passes the change on.
    void Recalculate(CDatabaseObjectImpl* source) override;
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override;

    // The directory of the files (the one member 0 keeps); empty when off.
    const std::string& Directory() const noexcept;
    // The name under which the file was last written (empty: none).
    const std::string& Remembered() const noexcept { return remembered_; }
    // Makes `name` the remembered one, the member's file bytes being
    // `bytes` (LineFileBytes of the member just read from that file): an
    // automatic write that would give the same bytes is skipped.
    void Remember(std::string name, const std::vector<BYTE>& bytes);
    const SLineFileKind& Kind() const noexcept { return kind_; }

protected:
    explicit CParameterLineSaveFile(const SLineFileKind& kind) noexcept : kind_(kind) {}

private:
    // The rule: the old name's file deleted after a rename, nothing for an
    // empty name, the file deleted when Exists is false, else written.
    // `explicitWrite`: a client asked; refusals and failures are reported
    // (else they are ignored) and the file is written even when its bytes
    // are those last written.
    HRESULT SyncFile(bool explicitWrite);
    // Deletes the file of `name`; a missing file is no failure.
    HRESULT DeleteNamed(const std::string& name, bool report);
    std::string PathOf(const std::string& name) const;
    std::string OwnerName() const;

    const SLineFileKind& kind_;
    CStreamGroup* owner_ = nullptr;
    CParameterBoolean* exists_ = nullptr;
    CParameterString* name_ = nullptr;
    const CParameterLineSaveFile* first_ = nullptr;  // member 0's, which keeps the directory
    std::string directory_;                          // member 0 only
    WORD index_ = 0;
    std::string remembered_;
    ULONGLONG writtenHash_ = 0;  // of the bytes last written or read (0: none)
};

class CParameterLLSaveFile final : public CParameterLineSaveFile {
public:
    CParameterLLSaveFile() noexcept : CParameterLineSaveFile(kLimitLineFiles) {}
};

class CParameterTDFSaveFile final : public CParameterLineSaveFile {
public:
    CParameterTDFSaveFile() noexcept : CParameterLineSaveFile(kTransducerFactorFiles) {}
};

// The bytes of `member`'s file: mark, index, record. Throws ComError as
// SaveRecord does. The caller holds the database lock.
std::vector<BYTE> LineFileBytes(CDatabaseObjectImpl& member, WORD index);

// Reads one file's bytes into `collection` (a LimitLineData or
// TransducerFactorsData of `kind`), `fileName` being the file's name (the
// directory left out), which becomes the member's remembered name without
// its extension. Checks before anything is loaded: the mark 0x5001, the
// index below kLineFileMembers, the record's whole structure (every size
// within its group and the file, known type codes, status words, payload
// sizes that fit their type, no bytes after the record) and its name (the
// member of that index). A refused file changes nothing; should a load fail
// all the same, the member is loaded back from its own record taken before.
// After a load the member's settings pass their change on (counts, lists).
// S_OK; E_FAIL with `reason` naming the file and the byte offset; E_INVALIDARG
// for a file name of another extension or one LineFileNameProblem refuses.
// Takes the write lock.
HRESULT LoadLineFileBytes(CGroupImpl& collection, const SLineFileKind& kind, const BYTE* data, std::size_t size,
                          const std::string& fileName, std::string& reason);

// Reads the file at `path` (a Win32 path) with LoadLineFileBytes; the Win32
// error as an HRESULT for a file that cannot be read.
HRESULT LoadLineFile(CGroupImpl& collection, const SLineFileKind& kind, const std::string& path, std::string& reason);

// What LoadLineFiles did.
struct SLineFilesRead {
    ULONG loaded = 0;
    std::vector<std::string> refused;  // one reason per file not loaded
};

// Reads every file of `kind`'s directory (the one the collection's SaveFile
// rules keep) into `collection`, in name order. Nothing when the files are
// off or the directory cannot be listed.
SLineFilesRead LoadLineFiles(CGroupImpl& collection, const SLineFileKind& kind);

// The members of TransducerFactorsData that the factor rules follow.
struct SFactorPartners {
    CParameterBoolean* exists[kLineFileMembers] = {};
    CParameterString* name[kLineFileMembers] = {};
    // Binds TransducerFactorsData.Factor[i].Exists and Name from the root of
    // `node`'s tree.
    void Bind(const CDatabaseObjectImpl& node);
};

// PhaseNoiseSettings.TransducerFactorNames: the factors to choose from,
// separated by ":": "** None **", then the Name of each factor whose Exists
// is true, in index order. Names that are empty or hold ":" are left out.
// Recomputed when a factor's Exists or Name changes; a reset gives the
// default text.
class CParameterTransducerFactorNames final : public CParameterString {
public:
    void PostConstruct() override;
    void Recalculate(CDatabaseObjectImpl*) override { Update(); }
    bool OnDependencyChanged(CDatabaseObjectImpl*) override { return Update(); }

private:
    // True when the list changed.
    bool Update();

    SFactorPartners factors_;
};

// TransducerFactorsData.CountValidTDF: the factors whose Exists is true.
class CParameterCountValidTDF final : public CParameterInteger {
public:
    void PostConstruct() override;
    void Recalculate(CDatabaseObjectImpl*) override { Update(); }
    bool OnDependencyChanged(CDatabaseObjectImpl*) override { return Update(); }

private:
    bool Update();

    SFactorPartners factors_;
};

// TransducerFactorsData.Changed: set true by the database when a factor's
// Exists, Name, PointCount, Frequency or Value changes; a client clears it
// by writing false after it has taken the change in.
class CParameterTDFChanged final : public CParameterBoolean {
public:
    void PostConstruct() override;
    void Recalculate(CDatabaseObjectImpl* source) override { OnDependencyChanged(source); }
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override;
};

}  // namespace vorn

// Settings files: a group of the tree saved by the user into a named file and
// recalled from it (DCSettings; AmplitudeNoisePremeas for its calibration
// files). A file holds exactly the group's settings stream (the bytes of its
// IPersistStream::Save: mark 0x5001 and the group's record).
//
// Sibling parameters inside the owning group drive it:
//  - CParameterSaveFile (`SaveFileName`, `CalibrationFile`): the file name,
//    kept as a full path: a written name is composed with the drive "D:",
//    the directory "\User\" and the extension of its sibling named like it
//    plus "Ext" (or `SaveFileNameExt`), see ComposeFileName;
//  - CParameterSaveFileTrigger (`SaveFile`): writing VARIANT_TRUE saves the
//    group into the file the name parameter (own name + "Name") gives;
//  - a string list (`SavedFilesList`, or for `SelectedX` the sibling `XList`):
//    the selectable entries separated by CR LF: "** Default **", then
//    "** Please select **" (every owning group but AmplitudeNoisePremeas),
//    then the files of the name's directory with the name's extension, in
//    name order ignoring letter case;
//  - CParameterSelectedSavedFile (`SelectedSavedFile`,
//    `SelectedCalibrationFile`): writing an index acts on that entry of the
//    list: "** Default **" resets the group to its defaults (its system
//    settings included, CDefaultsResetScope), "** Please
//    select **" does nothing, a file is recalled into the group (and its
//    path becomes the name parameter's value, so that the next save writes
//    the file recalled). An index beyond the list is E_INVALIDARG and
//    changes nothing.
// Siblings are looked up once in PostConstruct; a missing one disables what
// needs it (no name: no save; no list: the selection only stores its index).
// A companion Boolean of the group (`DCSettingsLoaded`,
// `UsableCalibrationFile`) tells whether the group's settings came from a
// file. docs/persistence.md tells where the files go and why.
//
// Every file action runs inside put_Value, under the database write lock.
// Loading a settings stream stores the values of these parameters through
// their checked stores and never triggers a file action.
#pragma once

#include <string>
#include <vector>

#include "parameters/ParameterBoolean.h"
#include "parameters/ParameterInteger.h"
#include "parameters/ParameterString.h"
#include "stream/NodeStream.h"

namespace vorn {

// The fixed entries of a list of saved files.
inline constexpr char16_t kDefaultEntry[] = u"** Default **";
inline constexpr char16_t kPleaseSelectEntry[] = u"** Please select **";
// Where a name without drive or directory goes.
inline constexpr char kSettingsDrive[] = "D:";
inline constexpr char kSettingsDirectory[] = "\\User\\";

// Composes the full path of a settings file from a name as the user gives it
// (8-bit text): a missing drive becomes "D:", a missing directory "\User\",
// and a relative directory is taken below "\User\"; the file name is kept;
// `extension` (".dcs"; empty or "." for none) replaces the name's own
// extension, which stays only when there is none to put in its place (a
// name's extension of "." alone counts as none). Empty `name`: empty result.
// False when the name has no file-name part or the path would not fit
// _MAX_PATH.
bool ComposeFileName(const std::string& name, const std::string& extension, std::string& path);

// Writes `size` bytes to `path` without ever leaving a partial file there
// (VornReplaceFileA: a fresh temporary file beside it, flushed and renamed
// over it; a read-only file is refused and a replaced one keeps its mode).
// The directory of `path` is created first if it is missing (one level).
// S_OK, or the Win32 error as an HRESULT with `path` as it was.
HRESULT WriteFileReplacing(const std::string& path, const void* data, std::size_t size) noexcept;

class CParameterSaveFile : public CParameterString {
public:
    // Finds the extension sibling: own name + "Ext", else "SaveFileNameExt".
    void PostConstruct() override;
    // Stores the composed full path through the change path. An empty text
    // is stored as it is (no file); a name that cannot be composed is
    // E_INVALIDARG with nothing changed; null as CParameterString.
    STDMETHODIMP put_Value(BSTR bstrValue) override;

    // The full path of the current value, composed again (after a reset the
    // value is the record's bare name); empty when invalid or empty. The
    // caller holds the database lock.
    std::string FilePath() const;
    // Drive and directory of FilePath(), or "D:\User\" without a name.
    std::string Directory() const;
    // The extension sibling's text (8-bit); empty without one or for ".".
    std::string Extension() const;

private:
    CParameterString* extension_ = nullptr;
};

class CParameterSelectedSavedFile;

class CParameterSaveFileTrigger : public CParameterBoolean {
public:
    // Finds the name sibling (own name + "Name") and the selection sibling
    // ("SelectedSavedFile").
    void PostConstruct() override;
    // The value is stored first. VARIANT_TRUE then saves the owning group
    // into the name parameter's file (nothing without a name) and refreshes
    // the selection's list. The save's failure is returned (the Win32 error
    // as an HRESULT, or the stream's), and nothing propagates then.
    STDMETHODIMP put_Value(VARIANT_BOOL bValue) override;

private:
    HRESULT SaveSettingsFile();

    CParameterSaveFile* name_ = nullptr;
    CParameterSelectedSavedFile* selection_ = nullptr;
};

class CParameterSelectedSavedFile : public CParameterIntegerSetting {
public:
    // Finds the list, the name parameter (the sibling of class
    // CParameterSaveFile), the companion Boolean and the owning group, and
    // follows the name parameter's changes (a new name may be a new
    // directory or extension to list).
    void PostConstruct() override;
    // Acts on the list's entry at the index (see the file comment), then
    // lists the directory again and selects the entry acted on. E_INVALIDARG
    // for an index beyond the list; a failed recall returns its HRESULT with
    // the selection unchanged: E_FAIL for a file that is not this group's
    // settings stream, the Win32 error for one that cannot be read, and the
    // stream's errors of a load that fails midway (the records loaded before
    // keep their values). Without a list it stores the index as an integer
    // setting does.
    STDMETHODIMP put_Value(ULONG udwValue) override;
    // The default index, the list rebuilt (fixed entries and files) and the
    // companion Boolean false.
    STDMETHODIMP Reset() override;
    // A change of the name parameter: the list is built again.
    void Recalculate(CDatabaseObjectImpl* source) override;
    bool OnDependencyChanged(CDatabaseObjectImpl* source) override;

    // Builds the list again from the fixed entries and the directory, then
    // selects `select` (null: the entry selected so far); an entry no longer
    // listed gives way to "** Please select **", or "** Default **" where
    // that is absent. The caller holds the write lock.
    void RefreshList(const char16_t* select);

private:
    std::vector<std::u16string> Entries() const;
    std::vector<std::u16string> ListFiles() const;
    // Loads the group from the file `entry` of the listed directory, whose
    // path is put in `path`.
    HRESULT Recall(const std::u16string& entry, std::string& path);

    CParameterString* list_ = nullptr;
    CParameterSaveFile* name_ = nullptr;
    CParameterBoolean* companion_ = nullptr;
    CStreamGroup* group_ = nullptr;
    bool pleaseSelect_ = true;
};

}  // namespace vorn

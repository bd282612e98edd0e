// Module resources: the lookup in the resource directory note of a loaded
// module, and the same lookup in a module file that is not loaded. The layout
// is described in resource_format.h.
#include <elf.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <vector>

#include "diagnostic.h"
#include "internal.h"
#include "resource_format.h"

using vorn::rt::Fail;
using vorn::rt::ResourceEntry;

namespace vorn::rt {

bool CanonicalResourceName(LPCSTR name, std::string* out) {
    if (!name) return false;
    if (IS_INTRESOURCE(name)) {
        *out = "#" + std::to_string(reinterpret_cast<ULONG_PTR>(name));
        return true;
    }
    if (!*name) return false;
    if (name[0] == '#' && name[1]) {
        unsigned long value = 0;
        for (const char* p = name + 1; *p; ++p) {
            if (*p < '0' || *p > '9' || value > 0xFFFF) return false;
            value = value * 10 + static_cast<unsigned long>(*p - '0');
        }
        if (value > 0xFFFF) return false;
        *out = "#" + std::to_string(value);
        return true;
    }
    out->clear();
    for (const char* p = name; *p; ++p) out->push_back(*p >= 'a' && *p <= 'z' ? static_cast<char>(*p - 32) : *p);
    return true;
}

}  // namespace vorn::rt

namespace {

// Rounds a note field size up to the 4-byte alignment of notes.
constexpr std::size_t Align4(std::size_t n) { return (n + 3) & ~std::size_t(3); }

// Walks the notes in `bytes` (one PT_NOTE segment, starting at `address` in
// the space the caller reads from) and calls `visit(descAddress, desc, size)`
// for each resource directory; stops when visit returns true.
bool ForEachDirectory(const BYTE* bytes, std::size_t size, ElfW(Addr) address,
                      const std::function<bool(ElfW(Addr), const BYTE*, std::size_t)>& visit) {
    std::size_t pos = 0;
    while (pos + 12 <= size) {
        std::uint32_t header[3];
        std::memcpy(header, bytes + pos, 12);
        const std::size_t nameStart = pos + 12;
        const std::size_t descStart = nameStart + Align4(header[0]);
        const std::size_t next = descStart + Align4(header[1]);
        if (next > size || descStart > size) return false;
        if (header[2] == vorn::rt::kResourceNoteType && header[0] == sizeof vorn::rt::kResourceNoteName &&
            std::memcmp(bytes + nameStart, vorn::rt::kResourceNoteName, sizeof vorn::rt::kResourceNoteName) == 0 &&
            visit(address + descStart, bytes + descStart, header[1]))
            return true;
        pos = next;
    }
    return false;
}

// Checks a directory's header; the number of entries that fit, or -1.
long EntryCount(const BYTE* desc, std::size_t size) {
    if (size < 8) return -1;
    std::uint32_t head[2];
    std::memcpy(head, desc, 8);
    if (head[0] != vorn::rt::kResourceVersion || head[1] > (size - 8) / sizeof(ResourceEntry)) return -1;
    return static_cast<long>(head[1]);
}

// The address a self-relative field at `fieldAddress` points at.
ElfW(Addr) Target(ElfW(Addr) fieldAddress, std::int32_t offset) {
    return fieldAddress + static_cast<ElfW(Addr)>(static_cast<ElfW(Sxword)>(offset));
}

// How a lookup ended, as a Win32 error.
struct Lookup {
    DWORD error = ERROR_RESOURCE_DATA_NOT_FOUND;
    void SawDirectory() {
        if (error == ERROR_RESOURCE_DATA_NOT_FOUND) error = ERROR_RESOURCE_TYPE_NOT_FOUND;
    }
    void SawType() { error = ERROR_RESOURCE_NAME_NOT_FOUND; }
};

}  // namespace

namespace {

// The directory entry of a resource of a loaded module, or the Win32 error.
DWORD FindEntry(HMODULE module, LPCSTR lpName, LPCSTR lpType, const ResourceEntry** found) {
    std::string name, type;
    if (!vorn::rt::CanonicalResourceName(lpName, &name) || !vorn::rt::CanonicalResourceName(lpType, &type))
        return ERROR_INVALID_PARAMETER;
    vorn::rt::LoadedObject object;
    if (!vorn::rt::FindLoadedObject(module, &object)) return ERROR_MOD_NOT_FOUND;
    Lookup lookup;
    *found = nullptr;
    for (ElfW(Half) i = 0; i < object.phnum && !*found; ++i) {
        const ElfW(Phdr)& segment = object.phdr[i];
        if (segment.p_type != PT_NOTE) continue;
        const ElfW(Addr) start = object.bias + segment.p_vaddr;
        ForEachDirectory(
            reinterpret_cast<const BYTE*>(start), segment.p_memsz, start,
            [&](ElfW(Addr), const BYTE* desc, std::size_t size) {
                lookup.SawDirectory();
                const long count = EntryCount(desc, size);
                const auto* entries = reinterpret_cast<const ResourceEntry*>(desc + 8);
                for (long e = 0; e < count; ++e) {
                    const ResourceEntry& entry = entries[e];
                    const auto* t =
                        reinterpret_cast<const char*>(Target(reinterpret_cast<ElfW(Addr)>(&entry.type), entry.type));
                    if (type != t) continue;
                    lookup.SawType();
                    const auto* n =
                        reinterpret_cast<const char*>(Target(reinterpret_cast<ElfW(Addr)>(&entry.name), entry.name));
                    if (name != n) continue;
                    *found = &entry;
                    return true;
                }
                return false;
            });
    }
    return *found ? ERROR_SUCCESS : lookup.error;
}

const char* DataOf(const ResourceEntry& entry) {
    return reinterpret_cast<const char*>(Target(reinterpret_cast<ElfW(Addr)>(&entry.data), entry.data));
}

}  // namespace

DWORD vorn::rt::FindModuleResource(HMODULE module, LPCSTR lpName, LPCSTR lpType, std::string_view* data) {
    const ResourceEntry* found = nullptr;
    if (const DWORD error = FindEntry(module, lpName, lpType, &found)) return error;
    *data = std::string_view(DataOf(*found), found->size);
    return ERROR_SUCCESS;
}

VORNAPI HRSRC WINAPI FindResourceA(HMODULE hModule, LPCSTR lpName, LPCSTR lpType) {
    try {
        const ResourceEntry* found = nullptr;
        if (const DWORD error = FindEntry(hModule, lpName, lpType, &found)) return Fail(error, HRSRC{nullptr});
        return reinterpret_cast<HRSRC>(const_cast<ResourceEntry*>(found));
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY, HRSRC{nullptr});
    }
}

VORNAPI HGLOBAL WINAPI LoadResource(HMODULE, HRSRC hResInfo) {
    if (!hResInfo) return Fail(ERROR_INVALID_HANDLE, HGLOBAL{nullptr});
    return const_cast<char*>(DataOf(*reinterpret_cast<const ResourceEntry*>(hResInfo)));
}

VORNAPI LPVOID WINAPI LockResource(HGLOBAL hResData) { return hResData; }

VORNAPI DWORD WINAPI SizeofResource(HMODULE, HRSRC hResInfo) {
    if (!hResInfo) return Fail(ERROR_INVALID_HANDLE, DWORD{0});
    return reinterpret_cast<const ResourceEntry*>(hResInfo)->size;
}

// ---------------------------------------------------------------------------
// Resources of a module file
// ---------------------------------------------------------------------------

namespace {

// A module file opened for reading at virtual addresses.
class ElfFile {
public:
    ~ElfFile() {
        if (fd_ >= 0) close(fd_);
    }

    // S_OK, or the HRESULT of the failure (with the failure text set).
    HRESULT Open(const std::string& path) {
        fd_ = open(path.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd_ < 0) {
            const DWORD error = vorn::rt::Win32ErrorFromErrno(errno);
            vorn::rt::SetErrorText("cannot open " + path);
            return HRESULT_FROM_WIN32(error);
        }
        struct stat st;
        if (fstat(fd_, &st) == 0) size_ = static_cast<std::uint64_t>(st.st_size);
        Elf64_Ehdr header;
        if (!Read(0, &header, sizeof header) || std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0 ||
            header.e_ident[EI_CLASS] != ELFCLASS64 || header.e_ident[EI_DATA] != ELFDATA2LSB ||
            header.e_phentsize != sizeof(Elf64_Phdr) || header.e_phnum == 0) {
            vorn::rt::SetErrorText(path + " is not a 64-bit little-endian ELF module");
            return HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT);
        }
        phdrs_.resize(header.e_phnum);
        if (!Read(header.e_phoff, phdrs_.data(), phdrs_.size() * sizeof(Elf64_Phdr))) {
            vorn::rt::SetErrorText(path + " is cut short");
            return HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT);
        }
        return S_OK;
    }

    const std::vector<Elf64_Phdr>& segments() const { return phdrs_; }
    // The file's size: no part of it is larger, so sizes read from it are
    // checked against this before anything is allocated for them.
    std::uint64_t size() const { return size_; }

    bool Read(std::uint64_t offset, void* out, std::size_t size) const {
        auto* bytes = static_cast<char*>(out);
        while (size > 0) {
            const ssize_t n = pread(fd_, bytes, size, static_cast<off_t>(offset));
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) return false;
            bytes += n;
            offset += static_cast<std::uint64_t>(n);
            size -= static_cast<std::size_t>(n);
        }
        return true;
    }

    // Reads `size` bytes at virtual address `address` from the file part of
    // the PT_LOAD segment that holds them.
    bool ReadAt(std::uint64_t address, void* out, std::size_t size) const {
        for (const Elf64_Phdr& s : phdrs_) {
            if (s.p_type != PT_LOAD || address < s.p_vaddr || address - s.p_vaddr > s.p_filesz ||
                size > s.p_filesz - (address - s.p_vaddr))
                continue;
            return Read(s.p_offset + (address - s.p_vaddr), out, size);
        }
        return false;
    }

    // A NUL-terminated string at `address` (at most 256 characters).
    bool ReadString(std::uint64_t address, std::string* out) const {
        out->clear();
        for (char c; out->size() <= 256; out->push_back(c)) {
            if (!ReadAt(address + out->size(), &c, 1)) return false;
            if (c == '\0') return true;
        }
        return false;
    }

private:
    int fd_ = -1;
    std::uint64_t size_ = 0;
    std::vector<Elf64_Phdr> phdrs_;
};

}  // namespace

HRESULT vorn::rt::ReadResourceFromFile(LPCSTR fileName, LPCSTR lpName, LPCSTR lpType, std::vector<BYTE>* data) {
    std::string name, type;
    if (!vorn::rt::CanonicalResourceName(lpName, &name) || !vorn::rt::CanonicalResourceName(lpType, &type) ||
        !fileName || !*fileName)
        return E_INVALIDARG;
    vorn::rt::HostPath host;
    if (!vorn::rt::MapWindowsPath(fileName, &host)) return HRESULT_FROM_WIN32(GetLastError());
    ElfFile file;
    if (HRESULT hr = file.Open(host.path); FAILED(hr)) return hr;
    Lookup lookup;
    bool found = false, damaged = false;
    for (const Elf64_Phdr& segment : file.segments()) {
        if (segment.p_type != PT_NOTE || found) continue;
        if (segment.p_offset > file.size() || segment.p_filesz > file.size() - segment.p_offset) {
            damaged = true;
            break;
        }
        std::vector<BYTE> notes(segment.p_filesz);
        if (!file.Read(segment.p_offset, notes.data(), notes.size())) {
            damaged = true;
            break;
        }
        ForEachDirectory(notes.data(), notes.size(), segment.p_vaddr,
                         [&](ElfW(Addr) descAddress, const BYTE* desc, std::size_t size) {
                             lookup.SawDirectory();
                             const long count = EntryCount(desc, size);
                             for (long e = 0; e < count; ++e) {
                                 ResourceEntry entry;
                                 std::memcpy(&entry, desc + 8 + e * sizeof entry, sizeof entry);
                                 const ElfW(Addr) at = descAddress + 8 + e * sizeof entry;
                                 std::string t, n;
                                 if (!file.ReadString(Target(at, entry.type), &t) ||
                                     !file.ReadString(Target(at + 4, entry.name), &n)) {
                                     damaged = true;
                                     return true;
                                 }
                                 if (t != type) continue;
                                 lookup.SawType();
                                 if (n != name) continue;
                                 if (entry.size > file.size()) {
                                     damaged = true;
                                     return true;
                                 }
                                 data->resize(entry.size);
                                 if (!file.ReadAt(Target(at + 8, entry.data), data->data(), entry.size)) {
                                     damaged = true;
                                     return true;
                                 }
                                 found = true;
                                 return true;
                             }
                             return false;
                         });
        if (damaged) break;
    }
    if (damaged) {
        vorn::rt::SetErrorText(host.path + ": the resource directory points outside the file");
        return HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT);
    }
    return found ? S_OK : HRESULT_FROM_WIN32(lookup.error);
}

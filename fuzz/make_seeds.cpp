// Writes the seed corpora of the fuzz targets, one directory per target under
// the directory given (fuzz/corpus/ holds the output):
//
//     fuzz_seeds fuzz/corpus
//
//   persistence/    small valid streams of the real tree (the DCSettings and
//                   AmplitudeNoisePremeas groups as their own streams, root
//                   streams that reach one node through its chain of groups:
//                   the DCSettings group, a buffer with samples, a real array,
//                   a string, an integer array), the whole tree at its
//                   defaults, and edge cases: a wrong mark, a bare mark, a
//                   name of 128 bytes, a record size of 0, an unknown type
//                   code, a group version of 2, an array count beyond its
//                   capacity, a count beyond the stream, a truncated stream;
//   stream_dump/    a stream with every record kind (limits, a string with a
//                   surrogate pair and one without its partner, buffers with
//                   and without samples), trailing bytes, damaged sizes, a
//                   damaged group whose name is not UTF-8;
//   registry_text/  registry files as the runtime writes them and as people
//                   and other tools do (comments, "\r\n", deletions, UTF-16),
//                   and the component's registration script;
//   typelib/        a small library of every type kind, the same inside a
//                   module file, damaged offsets;
//   resource/       module files with resource directories, damaged ones (a
//                   note segment and a resource larger than the file);
//   values/         texts for each value parser (first byte: the parser,
//                   second: the unit or enumeration; see values_fuzz.cpp).
// Run it again after the schema changes the tree's names.
#include <elf.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "TypeLibWriter.h"
#include "schema/Database.h"
#include "schema/Metadata.h"
#include "stream/StreamBytes.h"
#include "vorn/vorndb.h"

using namespace persist_test;
using vorn::ComPtr;
using namespace vorn::schema;

namespace {

using Bytes = std::vector<std::uint8_t>;

std::string g_root;

std::string Directory(const char* name) {
    const std::string dir = g_root + "/" + name;
    mkdir(dir.c_str(), 0755);
    return dir;
}

void Write(const std::string& dir, const char* name, const Bytes& bytes) {
    std::ofstream(dir + "/" + name, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}
void Write(const std::string& dir, const char* name, const CBytes& bytes) { Write(dir, name, bytes.Data()); }
void Write(const std::string& dir, const char* name, const std::string& text) {
    Write(dir, name, Bytes(text.begin(), text.end()));
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    if (!in) std::fprintf(stderr, "cannot read %s\n", path.c_str());
    return text.str();
}

// ---------------------------------------------------------------------------
// Settings streams
// ---------------------------------------------------------------------------

IDatabase* g_db = nullptr;

ComPtr<IUnknown> Node(const std::string& full) {
    std::u16string name(full.begin(), full.end());
    ComPtr<IUnknown> node;
    if (g_db->GetObject(name.data(), node.put()) != S_OK) std::fprintf(stderr, "no node %s\n", full.c_str());
    return node;
}

// The record of a node: its own stream without the mark.
CBytes RecordOf(const std::string& full) {
    ComPtr<IDatabaseObject> node;
    Node(full)->QueryInterface(IID_IDatabaseObject, node.put_void());
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, stream.put());
    node->Save(stream.get());
    const std::vector<BYTE> bytes = ContentsOf(stream.get());
    CBytes record;
    record.Data().assign(bytes.begin() + 2, bytes.end());
    return record;
}

// The stream of the whole tree.
CBytes WholeTree() {
    ComPtr<IPersistStream> root;
    g_db->QueryInterface(IID_IPersistStream, root.put_void());
    ComPtr<IStream> stream;
    CreateStreamOnHGlobal(nullptr, TRUE, stream.put());
    root->Save(stream.get(), FALSE);
    return CBytes(ContentsOf(stream.get()));
}

// A root stream holding only the chain of groups down to the node named
// `full`, and `record` for it.
CBytes RootPath(const std::string& full, CBytes record) {
    std::string path = full;
    for (std::size_t dot = path.rfind('.'); dot != std::string::npos; dot = path.rfind('.')) {
        path.resize(dot);
        const std::size_t start = path.rfind('.');
        record = Record(start == std::string::npos ? path : path.substr(start + 1), GroupPayload({record}));
    }
    return Stream(Record("", GroupPayload({record})));
}

CBytes RootPath(const std::string& full) { return RootPath(full, RecordOf(full)); }

// The full name of the first parameter of a family.
std::string FirstOf(Family family, std::uint32_t iface = GetSchemaMetadata().root, const std::string& prefix = "") {
    for (const MemberInfo& member : MembersOf(iface)) {
        std::string name = member.name;
        if (member.count) name += "[0]";
        const std::string full = prefix.empty() ? name : prefix + "." + name;
        if (member.family == family) return full;
        if (member.family == Family::Group) {
            std::string found = FirstOf(family, member.childInterface, full);
            if (!found.empty()) return found;
        }
    }
    return {};
}

void PersistenceSeeds() {
    const std::string dir = Directory("persistence");
    Write(dir, "whole_tree", WholeTree());

    const std::string buffer = FirstOf(Family::Buffer);
    CBuffer<float, 4> samples(CDim(3), CDim(2));
    for (int i = 0; i < 6; ++i) samples.Data()[i] = 0.5f * static_cast<float>(i);
    samples.SetUsedCount(3);
    ComPtr<IParameterBuffer> bufferParameter;
    Node(buffer)->QueryInterface(IID_IParameterBuffer, bufferParameter.put_void());
    bufferParameter->Attach(samples.Cookie());

    const std::string array = FirstOf(Family::RealArray);
    ComPtr<IParameterRealArray> arrayParameter;
    Node(array)->QueryInterface(IID_IParameterRealArray, arrayParameter.put_void());
    const double values[] = {1.0, -2.5, 1e9, 0.0, 3.25};
    arrayParameter->PutArray(5, values);

    const CBytes dc = Stream(RecordOf("UserSettings.DCSettings"));
    Write(dir, "dc_settings", dc);
    Write(dir, "am_premeas", Stream(RecordOf("UserSettings.VCOLOOPSettings.AmplitudeNoisePremeas")));
    const CBytes rootDC = RootPath("UserSettings.DCSettings");
    Write(dir, "root_dc_settings", rootDC);
    Write(dir, "root_buffer", RootPath(buffer));
    Write(dir, "root_real_array", RootPath(array));
    Write(dir, "root_string", RootPath(FirstOf(Family::String)));
    Write(dir, "root_integer_array", RootPath(FirstOf(Family::IntegerArray)));
    bufferParameter->ReleaseDescriptor();

    Write(dir, "edge_bad_mark", CBytes().U16(0x5002).Append(Record("", GroupPayload({}))));
    Write(dir, "edge_mark_only", CBytes().U16(kMark));
    Write(dir, "edge_name_128",
          Stream(Record("DCSettings", GroupPayload({Record(std::string(128, 'N'), IntegerPayload(true, 1))}))));
    Write(dir, "edge_size_zero",
          Stream(Record("DCSettings",
                        GroupPayload({CBytes().U32(0).U16(4).Text("Name").Append(IntegerPayload(true, 1))}))));
    Write(dir, "edge_unknown_type",
          Stream(Record("DCSettings", GroupPayload({Record("UseDCPort", CBytes().U16(13).U16(0).U32(2))}))));
    Write(dir, "edge_group_version", Stream(Record("DCSettings", GroupPayload({}, 2))));
    Write(
        dir, "edge_string_count",
        Stream(Record("DCSettings", GroupPayload({Record("SavedFilesList", CBytes().U16(8).U16(0).U32(0x7FFFFFFF))}))));
    const std::string arrayName = array.substr(array.rfind('.') + 1);
    CBytes tooMany = CBytes().U16(7).U16(0).U32(0xFFFFFFF0);
    Write(dir, "edge_capacity", RootPath(array, Record(arrayName, tooMany)));
    CBytes truncated;
    truncated.Data().assign(rootDC.Data().begin(),
                            rootDC.Data().begin() + static_cast<std::ptrdiff_t>(rootDC.Size() / 2));
    Write(dir, "edge_truncated", truncated);
}

CBytes BufferPayload(bool withSamples) {
    CBytes p = Head(11, true);
    if (!withSamples) return p.U16(0).U32(0);
    p.U16(4).U32(24).U32(2).U32(3).U32(3).U32(1).U32(0).U32(0).U32(1);
    for (int i = 0; i < 6; ++i) p.F32(0.25f * static_cast<float>(i));
    return p;
}

// Limit-line and transducer-factor files: u16 mark, u16 index, the member's
// record, of a line with points and of a factor; and damaged ones.
void LineFileSeeds() {
    const std::string dir = Directory("line_file");
    const auto file = [](WORD index, const std::string& member) {
        return CBytes().U16(kMark).U16(index).Append(RecordOf(member));
    };
    Write(dir, "line_default", file(3, "LimitLineData.Line[3]"));
    Write(dir, "factor_default", file(7, "TransducerFactorsData.Factor[7]"));
    const CBytes points = GroupPayload(
        {Record("Exists", BooleanPayload(true, true)), Record("Name", StringPayload(true, u"Mask")),
         Record("PointCount", IntegerSettingPayload(true, 2, 0, 100)),
         Record("PointX", RealArrayPayload(true, {1e3, 1e5})), Record("PointY", RealArrayPayload(true, {-100, -140}))});
    Write(dir, "line_points", CBytes().U16(kMark).U16(5).Append(Record("Line[5]", points)));
    Write(dir, "edge_index_100", CBytes().U16(kMark).U16(100).Append(Record("Line[100]", GroupPayload({}))));
    Write(dir, "edge_other_member", CBytes().U16(kMark).U16(4).Append(Record("Line[3]", GroupPayload({}))));
    Write(dir, "edge_head_only", CBytes().U16(kMark).U16(0));
}

void StreamDumpSeeds() {
    const std::string dir = Directory("stream_dump");
    const CBytes everything = Stream(Record(
        "Settings",
        GroupPayload(
            {Record("On", BooleanPayload(true, true)), Record("Off", BooleanPayload(false)),
             Record("Count", IntegerPayload(true, 7)), Record("Mode", IntegerSettingPayload(true, 2, 0, 5)),
             Record("Gone", IntegerSettingPayload(false, 0, 1, 9)), Record("Freq", RealPayload(true, 4, 1.5e6)),
             Record("Level", RealSettingPayload(true, 5, -30, -120, 20)),
             Record("Span", RealSettingPayload(false, 0, 0, 1e-15, 1e12)), Record("Tiny", RealPayload(true, 2, 3e-9)),
             Record("Title", StringPayload(true, u"Trace \u00B5 \U0001F600")),
             Record("Lone", StringPayload(true, std::u16string(u"a") + char16_t(0xD800) + u"b")),
             Record("NoTitle", StringPayload(false)), Record("Points", RealArrayPayload(true, {1, -2.5, 1e300})),
             Record("Indexes", IntegerArrayPayload(false, {1, 2, 3})), Record("Trace", BufferPayload(true)),
             Record("Empty", BufferPayload(false)),
             Record("Sub", GroupPayload({Record("Item[0]", BooleanPayload(true, false))}))})));
    Write(dir, "every_kind", everything);
    CBytes trailing = everything;
    trailing.U32(0xDEADBEEF).U16(0);
    Write(dir, "trailing_bytes", trailing);
    Write(dir, "parameter_top", Stream(Record("Freq", RealSettingPayload(true, 4, 10e3, 1, 1e9))));
    Write(dir, "child_past_group", Stream(Record("G", GroupPayload({RecordSized("X", IntegerPayload(true, 1), 200)}))));
    Write(dir, "group_short_of_children",
          Stream(Record("G", CBytes().U16(1).U32(3).Append(Record("X", BooleanPayload(true, true))))));
    Write(dir, "bad_status", Stream(Record("G", GroupPayload({Record("X", CBytes().U16(2).U16(7).U16(1))}))));
    Write(dir, "buffer_odd_samples", Stream(Record("B", BufferPayload(true).U16(0))));
    Write(dir, "name_not_utf8", Stream(Record("Group\x84", CBytes().U16(1).U32(1))));
}

// ---------------------------------------------------------------------------
// Registry text and registration scripts
// ---------------------------------------------------------------------------

void RegistryTextSeeds() {
    const std::string dir = Directory("registry_text");
    Write(dir, "database_reg", ReadText(std::string(VORN_SOURCE_DIR) + "/resources/Database.reg"));
    const std::string written =
        "Windows Registry Editor Version 5.00\n\n"
        "[HKEY_LOCAL_MACHINE]\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE]\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes]\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\CLSID]\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\CLSID\\{B1D3F3A0-52C4-4E0B-9D7A-6F0C2E1A9B11}]\n"
        "@=\"VORN Database Component\"\n\n"
        "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Classes\\CLSID\\{B1D3F3A0-52C4-4E0B-9D7A-6F0C2E1A9B11}\\InprocServer32]\n"
        "@=\"/opt/vorn/lib/libvorndb.so\"\n"
        "\"ThreadingModel\"=\"Free\"\n\n"
        "[HKEY_CURRENT_USER]\n\n"
        "[HKEY_CURRENT_USER\\Software]\n"
        "\"Count\"=dword:0000002a\n"
        "\"Quote \\\"and\\\\ slash\"=\"C:\\\\Data\\\\\\\"x\\\"\"\n"
        "\"Blob\"=hex:00,01,02,03,04,05,06,07,08,09,0a,0b,0c,0d,0e,0f,10,11,12,13,14,15,16,17,18,\\\n"
        "  19,1a,1b,1c\n"
        "\"Path\"=hex(2):25,00,48,00,4f,00,4d,00,45,00,25,00,00,00\n"
        "\"List\"=hex(7):61,00,00,00,62,00,00,00,00,00\n"
        "\"Nothing\"=hex(0):\n\n";
    Write(dir, "as_written", written);
    Write(dir, "by_hand",
          "\xEF\xBB\xBFWindows Registry Editor Version 5.00\r\n"
          "; a comment\r\n"
          "[HKEY_CLASSES_ROOT\\Zelmwerk.VORN.Database]\r\n"
          "@=\"VORN Database Component\"\r\n"
          "  \"Spaced\" = \"value\"  \r\n"
          "[HKEY_CLASSES_ROOT\\Zelmwerk.VORN.Database]\r\n"
          "\"Again\"=DWORD:FFffFFff\r\n"
          "\"Again\"=-\r\n"
          "[-HKEY_CURRENT_USER\\Software\\Old]\r\n"
          "[hkey_current_user\\Software\\New\\]\r\n");
    std::string wide = "\xFF\xFE";
    for (char c :
         std::string("Windows Registry Editor Version 5.00\r\n[HKEY_CURRENT_USER\\A]\r\n\"w\"=\"\xC3\xA9\"\r\n"))
        wide += std::string{c, '\0'};
    Write(dir, "utf16", wide);
    Write(dir, "bad_escape", "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\A]\n\"n\"=\"a\\tb\"\n");
    Write(dir, "bad_hex_continuation",
          "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\A]\n\"b\"=hex:01,02,\\\n");
    Write(dir, "no_header", "[HKEY_CURRENT_USER\\A]\n@=\"x\"\n");
    Write(dir, "default_after_named",
          "Windows Registry Editor Version 5.00\n[HKEY_CURRENT_USER\\A]\n\"n\"=\"x\"\n@=\"d\"\n");
}

// ---------------------------------------------------------------------------
// Type libraries and module files
// ---------------------------------------------------------------------------

Bytes SmallTypeLibrary() {
    using namespace vorn::typelib;
    vorn::typelib::Library lib;
    lib.libid = GUID{0x4f0e9a11, 0x2c3d, 0x4b5e, {0x8f, 0x60, 0x71, 0x82, 0x93, 0xa4, 0xb5, 0xc6}};
    lib.majorVersion = 1;
    lib.name = "VornSeedLib";
    lib.doc = "Seed library \xC2\xB5";

    vorn::typelib::Type mode;  // 0
    mode.kind = TKIND_ENUM;
    mode.name = "eMODE";
    mode.members = {Member{0x40000000, "eMODE_OFF", "", 0, 0, {VT_I4, 0, kNoType}, {}},
                    Member{0x40000001, "eMODE_ON", "switched on", 0, 1, {VT_I4, 0, kNoType}, {}}};
    lib.types.push_back(mode);

    vorn::typelib::Type item;  // 1
    item.guid = GUID{0x4f0e9a12, 0x2c3d, 0x4b5e, {0x8f, 0x60, 0x71, 0x82, 0x93, 0xa4, 0xb5, 0xc6}};
    item.name = "IItem";
    item.doc = "An item";
    item.typeFlags = TYPEFLAG_FOLEAUTOMATION;
    item.members = {Member{1,
                           "Mode",
                           "",
                           INVOKE_PROPERTYGET,
                           0,
                           {VT_HRESULT, 0, kNoType},
                           {Param{"pMode", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_USERDEFINED, 1, 0}}}},
                    Member{2,
                           "Child",
                           "indexed",
                           INVOKE_PROPERTYGET,
                           0,
                           {VT_HRESULT, 0, kNoType},
                           {Param{"udwIndex", PARAMFLAG_FIN, {VT_UI4, 0, kNoType}},
                            Param{"ppChild", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_USERDEFINED, 2, 1}}}}};
    lib.types.push_back(item);

    vorn::typelib::Type derived;  // 2
    derived.guid = GUID{0x4f0e9a13, 0x2c3d, 0x4b5e, {0x8f, 0x60, 0x71, 0x82, 0x93, 0xa4, 0xb5, 0xc6}};
    derived.name = "IDerivedItem";
    derived.base = 1;
    lib.types.push_back(derived);

    vorn::typelib::Type record;  // 3
    record.kind = TKIND_RECORD;
    record.name = "Point";
    record.members = {Member{0, "x", "", 0, 0, {VT_R8, 0, kNoType}, {}},
                      Member{1, "y", "", 0, 8, {VT_R8, 0, kNoType}, {}}};
    lib.types.push_back(record);

    vorn::typelib::Type coclass;  // 4
    coclass.guid = GUID{0x4f0e9a14, 0x2c3d, 0x4b5e, {0x8f, 0x60, 0x71, 0x82, 0x93, 0xa4, 0xb5, 0xc6}};
    coclass.kind = TKIND_COCLASS;
    coclass.name = "Item";
    coclass.base = 1;
    lib.types.push_back(coclass);
    return WriteTypeLib(lib);
}

struct Resource {
    std::string type;  // canonical: upper case, or "#n"
    std::string name;
    Bytes data;
};

void Put32(Bytes& bytes, std::size_t at, std::uint32_t value) { std::memcpy(bytes.data() + at, &value, 4); }

// A 64-bit little-endian ELF file with one PT_LOAD segment mapping the whole
// file at address 0 and one PT_NOTE segment holding the resource directory
// (resource_format.h) of `resources`; the strings and data follow the note.
Bytes ModuleFile(const std::vector<Resource>& resources) {
    constexpr std::size_t kNoteAt = sizeof(Elf64_Ehdr) + 2 * sizeof(Elf64_Phdr);
    const std::size_t descSize = 8 + 16 * resources.size();
    const std::size_t noteSize = 12 + 8 + descSize;
    Bytes file(kNoteAt + noteSize, 0);
    const std::size_t descAt = kNoteAt + 20;
    for (std::size_t i = 0; i < resources.size(); ++i) {
        const std::size_t entryAt = descAt + 8 + 16 * i;
        const Resource& r = resources[i];
        auto append = [&](const std::string& text, std::size_t field) {
            Put32(file, field, static_cast<std::uint32_t>(file.size() - field));
            file.insert(file.end(), text.begin(), text.end());
            file.push_back(0);
        };
        append(r.type, entryAt);
        append(r.name, entryAt + 4);
        Put32(file, entryAt + 8, static_cast<std::uint32_t>(file.size() - (entryAt + 8)));
        Put32(file, entryAt + 12, static_cast<std::uint32_t>(r.data.size()));
        file.insert(file.end(), r.data.begin(), r.data.end());
    }
    Put32(file, kNoteAt, 5);
    Put32(file, kNoteAt + 4, static_cast<std::uint32_t>(descSize));
    Put32(file, kNoteAt + 8, 0x53455256);  // "VRES"
    std::memcpy(file.data() + kNoteAt + 12, "VORN", 5);
    Put32(file, descAt, 1);
    Put32(file, descAt + 4, static_cast<std::uint32_t>(resources.size()));

    Elf64_Ehdr header{};
    std::memcpy(header.e_ident, ELFMAG, SELFMAG);
    header.e_ident[EI_CLASS] = ELFCLASS64;
    header.e_ident[EI_DATA] = ELFDATA2LSB;
    header.e_ident[EI_VERSION] = EV_CURRENT;
    header.e_type = ET_DYN;
    header.e_machine = EM_X86_64;
    header.e_version = EV_CURRENT;
    header.e_phoff = sizeof(Elf64_Ehdr);
    header.e_ehsize = sizeof(Elf64_Ehdr);
    header.e_phentsize = sizeof(Elf64_Phdr);
    header.e_phnum = 2;
    Elf64_Phdr segments[2]{};
    segments[0].p_type = PT_LOAD;
    segments[0].p_flags = PF_R;
    segments[0].p_filesz = segments[0].p_memsz = file.size();
    segments[0].p_align = 0x1000;
    segments[1].p_type = PT_NOTE;
    segments[1].p_flags = PF_R;
    segments[1].p_offset = segments[1].p_vaddr = kNoteAt;
    segments[1].p_filesz = segments[1].p_memsz = noteSize;
    segments[1].p_align = 4;
    std::memcpy(file.data(), &header, sizeof header);
    std::memcpy(file.data() + sizeof header, segments, sizeof segments);
    return file;
}

void TypeLibSeeds() {
    const std::string dir = Directory("typelib");
    const Bytes lib = SmallTypeLibrary();
    Write(dir, "small", lib);
    Write(dir, "in_module", ModuleFile({{"TYPELIB", "#1", lib}}));
    Bytes cut(lib.begin(), lib.begin() + static_cast<std::ptrdiff_t>(lib.size() / 2));
    Write(dir, "cut_short", cut);
    Bytes badString = lib;
    Put32(badString, offsetof(vorn::typelib::FileHeader, name), 0x7FFFFFF0);
    Write(dir, "bad_name_offset", badString);
}

void ResourceSeeds() {
    const std::string dir = Directory("resource");
    const std::string script = ReadText(std::string(VORN_SOURCE_DIR) + "/resources/Database.reg");
    const Bytes module = ModuleFile({{"TYPELIB", "#1", SmallTypeLibrary()},
                                     {"REGISTRY", "#101", Bytes(script.begin(), script.end())},
                                     {"TEXT", "GREETING", Bytes{'H', 'i', '\n'}},
                                     {"#10", "#7", Bytes{0, 1, 2, 3, 0xFF}}});
    Write(dir, "module", module);
    Write(dir, "empty_directory", ModuleFile({}));
    Bytes pastEnd = ModuleFile({{"TEXT", "GREETING", Bytes{'H', 'i'}}});
    // The entry's size field: the data would run far past the file.
    Put32(pastEnd, sizeof(Elf64_Ehdr) + 2 * sizeof(Elf64_Phdr) + 20 + 8 + 12, 0xFFFFFFF0);
    Write(dir, "data_past_end", pastEnd);
    Bytes notePastEnd = ModuleFile({{"TEXT", "GREETING", Bytes{'H', 'i'}}});
    // The PT_NOTE segment's p_filesz: far more than the file holds.
    const std::uint64_t huge = 0x0001000000000000;
    std::memcpy(notePastEnd.data() + sizeof(Elf64_Ehdr) + sizeof(Elf64_Phdr) + offsetof(Elf64_Phdr, p_filesz), &huge,
                sizeof huge);
    Write(dir, "note_past_end", notePastEnd);
    Bytes wrongOwner = ModuleFile({{"TEXT", "GREETING", Bytes{'H', 'i'}}});
    std::memcpy(wrongOwner.data() + sizeof(Elf64_Ehdr) + 2 * sizeof(Elf64_Phdr) + 12, "NROV", 4);
    Write(dir, "wrong_note_owner", wrongOwner);
    Write(dir, "elf_header_only", Bytes(module.begin(), module.begin() + sizeof(Elf64_Ehdr)));
}

// ---------------------------------------------------------------------------
// Values of the tool
// ---------------------------------------------------------------------------

void ValueSeeds() {
    const std::string dir = Directory("values");
    // Parsers as values_fuzz.cpp numbers them; units as eUNIT numbers them.
    enum : std::uint8_t { kReal = 0, kInteger = 2, kBoolean = 3, kEnum = 4, kString = 5, kRealList = 6 };
    const std::uint32_t measState = FindEnumeration("eMEASSTATE");
    const std::uint32_t combFreq = FindEnumeration("eCOMBFREQ");
    struct Seed {
        const char* name;
        std::uint8_t parser;
        std::uint32_t pick;
        const char* text;
    } const seeds[] = {
        {"real_mhz", kReal, 4, "1.5 MHz"},
        {"real_dbm", kReal, 5, "-30 dBm"},
        {"real_prefix_alone", kReal, 4, "10k"},
        {"real_kilo_upper", kReal, 4, "10 KHz"},
        {"real_ns", kReal, 2, " 100 ns "},
        {"real_milli", kReal, 3, "2.5m"},
        {"real_micro_sign", kReal, 2, "3 \xC2\xB5s"},
        {"real_exponent", kReal, 17, "-1.25e-3 kW"},
        {"real_dbc_hz", kReal, 10, "-150.5 dBc/Hz"},
        {"real_plain", kReal, 0, "+.5"},
        {"real_unit_past_end", kReal, 23, "3 unit#23"},
        {"real_largest", kReal, 4, "1.79769313486e308 Hz"},
        {"real_smallest", kReal, 3, "2.3e-308 V"},
        {"integer", kInteger, 0, "4294967295"},
        {"integer_hex", kInteger, 0, "0xDEADbeef"},
        {"boolean", kBoolean, 0, "On"},
        {"enum_name", kEnum, measState, "eMEASSTATE_RUNNING"},
        {"enum_short", kEnum, measState, "idle"},
        {"enum_digits", kEnum, combFreq, "62K5"},
        {"enum_number", kEnum, combFreq, "0x3"},
        {"string", kString, 0, "\"tab\\there \\x41 \\\"q\\\" \\\\\""},
        {"string_bare", kString, 0, "plain text"},
        {"real_list", kRealList, 4, "1 kHz, 2.5 MHz ,3"},
    };
    for (const Seed& seed : seeds) {
        std::string bytes{static_cast<char>(seed.parser), static_cast<char>(seed.pick)};
        Write(dir, seed.name, bytes + seed.text);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s DIRECTORY\n", argv[0]);
        return 1;
    }
    g_root = argv[1];
    ComPtr<IDatabase> db;
    if (vorn::CreateDatabase(IID_IDatabase, db.put_void()) != S_OK) return 1;
    g_db = db.get();
    PersistenceSeeds();
    StreamDumpSeeds();
    LineFileSeeds();
    RegistryTextSeeds();
    TypeLibSeeds();
    ResourceSeeds();
    ValueSeeds();
    return 0;
}

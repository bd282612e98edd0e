// Serialises a type-library description into the binary format of
// typelib_format.h: header, type table, member and parameter records, then the
// string area (each distinct string stored once).
#include "TypeLibWriter.h"

#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <map>
#include <stdexcept>

namespace vorn::typelib {

namespace {

class StringArea {
public:
    std::uint32_t Add(const std::string& text) {
        auto it = offsets_.find(text);
        if (it != offsets_.end()) return it->second;
        const std::uint32_t offset = Narrow(bytes_.size());
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        bytes_.push_back(0);
        offsets_.emplace(text, offset);
        return offset;
    }
    std::uint32_t AddOptional(const std::string& text) { return text.empty() ? kNoString : Add(text); }
    const std::vector<std::uint8_t>& bytes() const { return bytes_; }

    static std::uint32_t Narrow(std::size_t n) {
        if (n > std::numeric_limits<std::uint32_t>::max()) throw std::invalid_argument("type library too large");
        return static_cast<std::uint32_t>(n);
    }

private:
    std::vector<std::uint8_t> bytes_;
    std::map<std::string, std::uint32_t> offsets_;
};

template <class Record>
void Append(std::vector<std::uint8_t>* out, const Record& record) {
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(&record);
    out->insert(out->end(), bytes, bytes + sizeof record);
}

TypeDescriptor Describe(const TypeRef& ref, std::size_t typeCount, const std::string& where) {
    if (ref.vt == VT_USERDEFINED ? ref.href >= typeCount : ref.href != kNoType)
        throw std::invalid_argument(where + ": type reference out of range");
    return TypeDescriptor{ref.vt, ref.pointers, ref.href};
}

void RequireName(const std::string& name, const std::string& what) {
    if (name.empty()) throw std::invalid_argument(what + " without a name");
}

}  // namespace

std::vector<std::uint8_t> WriteTypeLib(const Library& library) {
    RequireName(library.name, "library");
    StringArea strings;
    const std::size_t typeCount = library.types.size();

    // Members and parameters follow the type table; count them first to know
    // where each block starts.
    std::size_t memberCount = 0, paramCount = 0;
    for (const Type& type : library.types) {
        memberCount += type.members.size();
        for (const Member& member : type.members) paramCount += member.params.size();
    }
    const std::size_t typesOffset = sizeof(FileHeader);
    const std::size_t membersStart = typesOffset + typeCount * sizeof(TypeRecord);
    const std::size_t paramsStart = membersStart + memberCount * sizeof(MemberRecord);
    const std::size_t stringsOffset = paramsStart + paramCount * sizeof(ParamRecord);

    std::vector<std::uint8_t> types, members, params;
    std::size_t memberIndex = 0, paramIndex = 0;
    for (const Type& type : library.types) {
        RequireName(type.name, "type");
        if (type.base != kNoType && type.base >= typeCount)
            throw std::invalid_argument(type.name + ": base type out of range");
        TypeRecord record{};
        std::memcpy(record.guid, &type.guid, sizeof record.guid);
        record.kind = static_cast<std::uint32_t>(type.kind);
        record.typeFlags = type.typeFlags;
        record.name = strings.Add(type.name);
        record.doc = strings.AddOptional(type.doc);
        record.base = type.base;
        record.memberCount = StringArea::Narrow(type.members.size());
        record.membersOffset = StringArea::Narrow(membersStart + memberIndex * sizeof(MemberRecord));
        Append(&types, record);
        for (const Member& member : type.members) {
            const std::string where = type.name + "." + member.name;
            RequireName(member.name, "member of " + type.name);
            MemberRecord m{};
            m.memberId = member.memberId;
            m.name = strings.Add(member.name);
            m.doc = strings.AddOptional(member.doc);
            m.invokeKind = member.invokeKind;
            m.value = member.value;
            m.type = Describe(member.type, typeCount, where);
            m.paramCount = StringArea::Narrow(member.params.size());
            m.paramsOffset = StringArea::Narrow(paramsStart + paramIndex * sizeof(ParamRecord));
            Append(&members, m);
            ++memberIndex;
            for (const Param& param : member.params) {
                ParamRecord p{};
                p.name = strings.AddOptional(param.name);
                p.flags = param.flags;
                p.type = Describe(param.type, typeCount, where);
                Append(&params, p);
                ++paramIndex;
            }
        }
    }

    FileHeader header{};
    std::memcpy(header.magic, kMagic, sizeof header.magic);
    header.version = kFormatVersion;
    std::memcpy(header.libid, &library.libid, sizeof header.libid);
    header.majorVersion = library.majorVersion;
    header.minorVersion = library.minorVersion;
    header.lcid = library.lcid;
    header.syskind = static_cast<std::uint32_t>(library.syskind);
    header.libFlags = library.libFlags;
    header.name = strings.Add(library.name);
    header.doc = strings.AddOptional(library.doc);
    header.typeCount = StringArea::Narrow(typeCount);
    header.typesOffset = StringArea::Narrow(typesOffset);
    header.stringsOffset = StringArea::Narrow(stringsOffset);
    header.stringsSize = StringArea::Narrow(strings.bytes().size());
    header.fileSize = StringArea::Narrow(stringsOffset + strings.bytes().size());

    std::vector<std::uint8_t> out;
    out.reserve(header.fileSize);
    Append(&out, header);
    for (const std::vector<std::uint8_t>* block : {&types, &members, &params})
        out.insert(out.end(), block->begin(), block->end());
    out.insert(out.end(), strings.bytes().begin(), strings.bytes().end());
    return out;
}

void WriteFileIfChanged(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    {
        std::ifstream in(path, std::ios::binary);
        if (in) {
            std::vector<std::uint8_t> old((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            if (old == bytes) return;
        }
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out) throw std::runtime_error("cannot write " + path);
}

}  // namespace vorn::typelib

// The whole tree as text, and every value changed: see TreeDump.h.
#include "stream/TreeDump.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <functional>

#include "schema/Metadata.h"

namespace persist_test {

namespace {

using vorn::ComPtr;
using namespace vorn::schema;

using Visit = std::function<void(const std::string& fullName, const MemberInfo& member, IUnknown* node)>;

// Calls `visit` for every parameter below the group of interface `iface`.
void Walk(IDatabase* db, std::uint32_t iface, const std::string& prefix, const Visit& visit) {
    for (const MemberInfo& member : MembersOf(iface)) {
        const std::uint32_t elements = member.count ? member.count : 1;
        for (std::uint32_t i = 0; i < elements; ++i) {
            std::string name = member.name;
            if (member.count) name += "[" + std::to_string(i) + "]";
            const std::string full = prefix.empty() ? name : prefix + "." + name;
            if (member.family == Family::Group) {
                Walk(db, member.childInterface, full, visit);
                continue;
            }
            std::u16string wide(full.begin(), full.end());
            ComPtr<IUnknown> node;
            if (db->GetObject(wide.data(), node.put()) != S_OK) {
                visit(full, member, nullptr);
                continue;
            }
            visit(full, member, node.get());
        }
    }
}

std::string Hex(std::uint64_t value) {
    char text[32];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(value));
    return text;
}
std::string Bits(double value) { return Hex(std::bit_cast<std::uint64_t>(value)); }

// FNV-1a over bytes: array contents in one word.
std::string Hash(const void* data, std::size_t size) {
    std::uint64_t h = 1469598103934665603ull;
    const auto* p = static_cast<const unsigned char*>(data);
    for (std::size_t i = 0; i < size; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return Hex(h);
}

template <class I>
ComPtr<I> As(IUnknown* node) {
    ComPtr<I> typed;
    node->QueryInterface(VORN_UUIDOF(I), typed.put_void());
    return typed;
}

std::string StatusText(IUnknown* node) {
    ComPtr<IParameter> p = As<IParameter>(node);
    eSTATUS status = eSTATUS_INVALID;
    if (!p || FAILED(p->get_Status(&status))) return "status=?";
    return "status=" + std::to_string(static_cast<int>(status));
}

template <class T, class I>
std::string ArrayText(I* array) {
    ULONG size = 0;
    eUNIT unit = eUNIT_NONE;
    array->get_Size(&size);
    array->get_Units(&unit);
    std::vector<T> values(size);
    if (size) array->GetArray(size, values.data());
    return " unit=" + std::to_string(static_cast<int>(unit)) + " size=" + std::to_string(size) +
           " data=" + Hash(values.data(), values.size() * sizeof(T));
}

std::string Describe(const MemberInfo& member, IUnknown* node) {
    std::string line = std::string(FamilyInterfaceName(member.family)) + " " + StatusText(node);
    switch (member.family) {
        case Family::Boolean: {
            VARIANT_BOOL v = 0;
            if (As<IParameterBoolean>(node)->get_Value(&v) == S_OK) line += " value=" + std::to_string(v);
            break;
        }
        case Family::Integer: {
            auto p = As<IParameterInteger>(node);
            ULONG v = 0;
            if (p->get_Value(&v) == S_OK) line += " value=" + std::to_string(v);
            if (p->get_Minimum(&v) == S_OK) line += " min=" + std::to_string(v);
            if (p->get_Maximum(&v) == S_OK) line += " max=" + std::to_string(v);
            break;
        }
        case Family::Real: {
            auto p = As<IParameterReal>(node);
            double v = 0;
            eUNIT unit = eUNIT_NONE;
            const bool valid = p->get_Value(&v) == S_OK;
            if (valid) line += " value=" + Bits(v);
            if (p->get_Minimum(&v) == S_OK) line += " min=" + Bits(v);
            if (p->get_Maximum(&v) == S_OK) line += " max=" + Bits(v);
            // The stream carries the unit with a valid value only (a rule may
            // have invalidated a reading since its unit was set).
            if (valid && p->get_Units(&unit) == S_OK) line += " unit=" + std::to_string(static_cast<int>(unit));
            break;
        }
        case Family::String: {
            BSTR text = nullptr;
            if (As<IParameterString>(node)->get_Value(&text) == S_OK) {
                // The stream holds an empty text as the null string, which
                // loads invalid (a marker rule empties the name of a marker
                // that is off).
                if (SysStringLen(text) == 0)
                    line = std::string(FamilyInterfaceName(member.family)) + " status=1";
                else
                    line += " value=" + Hash(text, SysStringLen(text) * 2) + "/" + std::to_string(SysStringLen(text));
                SysFreeString(text);
            }
            break;
        }
        case Family::IntegerArray:
            line += ArrayText<ULONG>(As<IParameterIntegerArray>(node).get());
            break;
        case Family::RealArray:
            line += ArrayText<double>(As<IParameterRealArray>(node).get());
            break;
        case Family::Buffer: {
            auto p = As<IParameterBuffer>(node);
            ULONG_PTR cookie = 0;
            if (p->GetDescriptor(&cookie) != S_OK) {
                line += " buffer=none";
                break;
            }
            const auto* b = CBuffer<float, 4>::FromCookie(cookie);
            line += " buffer=" + std::to_string(b->FirstExtent()) + "x" + std::to_string(b->SecondExtent()) +
                    " used=" + std::to_string(b->UsedCount()) + " bytes=" + std::to_string(b->AllocatedBytes()) +
                    " growable=" + std::to_string(b->IsGrowable()) + " mode=" + std::to_string(b->Mode()) +
                    " data=" + Hash(b->Data(), b->SampleCount() * sizeof(float));
            break;
        }
        case Family::Group:
            break;
    }
    return line;
}

}  // namespace

std::vector<std::string> DumpTree(IDatabase* db) {
    std::vector<std::string> lines;
    Walk(db, GetSchemaMetadata().root, "", [&](const std::string& full, const MemberInfo& member, IUnknown* node) {
        lines.push_back(full + ": " + (node ? Describe(member, node) : "missing"));
    });
    return lines;
}

std::size_t ChangeEveryValue(IDatabase* db, std::vector<std::unique_ptr<CBuffer<float, 4>>>& buffers) {
    const SchemaMetadata& meta = GetSchemaMetadata();
    std::size_t changed = 0;
    bool longTrace = false;
    Walk(db, meta.root, "", [&](const std::string&, const MemberInfo& member, IUnknown* node) {
        if (!node || std::string_view(meta.classes[member.parameterClass].name) == "CParameterNoLoadSave") return;
        const std::size_t n = changed++;
        switch (member.family) {
            case Family::Boolean: {
                auto p = As<IParameterBoolean>(node);
                VARIANT_BOOL v = 0;
                p->get_Value(&v);
                p->AssignValue(v ? VARIANT_FALSE : VARIANT_TRUE, 1);
                break;
            }
            case Family::Integer: {
                auto p = As<IParameterInteger>(node);
                ULONG v = 0;
                ULONG maximum = 0;
                p->get_Value(&v);
                if (p->get_Maximum(&maximum) != S_OK) {
                    p->AssignValue(v + 12345, 1);
                } else if (maximum < 0xFFFFFFF0u && p->put_Maximum(maximum + 3) == S_OK) {
                    p->AssignValue(maximum + 3, 1);  // a setting: beyond its old limit
                } else if (maximum != 0xFFFFFFFFu) {
                    p->AssignValue((v + 1) % (maximum + 1), 1);  // an enumeration
                }
                break;
            }
            case Family::Real: {
                auto p = As<IParameterReal>(node);
                double minimum = 0;
                double maximum = 0;
                if (p->get_Minimum(&minimum) == S_OK && p->get_Maximum(&maximum) == S_OK) {
                    double span = maximum - minimum;
                    if (!(span > 0) || !std::isfinite(span)) span = 1;
                    p->put_Minimum(minimum - span);
                    p->put_Maximum(maximum + span);
                    p->AssignValue(maximum + span / 2, 1);
                } else {
                    // The unit goes with a valid value only: the stream has
                    // no unit for an invalid real.
                    if (n % 9 != 0) p->put_Units(static_cast<eUNIT>((n % 21) + 1));
                    p->AssignValue(0.125 * static_cast<double>(n) - 3, 1);
                }
                break;
            }
            case Family::String: {
                const std::string text = "v" + std::to_string(n);
                BSTR value =
                    SysAllocStringLen(std::u16string(text.begin(), text.end()).c_str(), static_cast<UINT>(text.size()));
                As<IParameterString>(node)->AssignValue(value, 1);
                SysFreeString(value);
                break;
            }
            case Family::IntegerArray: {
                auto p = As<IParameterIntegerArray>(node);
                ULONG capacity = 0;
                p->get_MaxSize(&capacity);
                std::vector<ULONG> values(std::min<ULONG>(capacity, 1 + n % 5));
                for (std::size_t i = 0; i < values.size(); ++i) values[i] = static_cast<ULONG>(n * 7 + i);
                p->PutArray(static_cast<ULONG>(values.size()), values.data());
                break;
            }
            case Family::RealArray: {
                auto p = As<IParameterRealArray>(node);
                ULONG capacity = 0;
                p->get_MaxSize(&capacity);
                ULONG count = std::min<ULONG>(capacity, 1 + n % 5);
                if (!longTrace && capacity >= 102400) {
                    count = 102400;
                    longTrace = true;
                }
                std::vector<double> values(count);
                for (std::size_t i = 0; i < values.size(); ++i) values[i] = std::sin(static_cast<double>(n + i));
                p->PutArray(count, values.data());
                break;
            }
            case Family::Buffer: {
                auto& buffer = buffers.emplace_back(std::make_unique<CBuffer<float, 4>>(CDim(3), CDim(2)));
                for (int i = 0; i < 6; ++i) buffer->Data()[i] = static_cast<float>(n) + 0.25f * static_cast<float>(i);
                buffer->SetUsedCount(2);
                As<IParameterBuffer>(node)->Attach(buffer->Cookie());
                break;
            }
            case Family::Group:
                break;
        }
        if (n % 9 == 0) As<IParameter>(node)->put_Status(eSTATUS_INVALID);
    });
    return changed;
}

}  // namespace persist_test

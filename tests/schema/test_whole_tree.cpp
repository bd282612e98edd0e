// The whole live tree, walked over the schema metadata right after the
// database object was created. For every node: the typed getter of its group
// hands it out (S_OK, with a reference added, answering the interface of its
// family or its group interface at the same address); its name and full
// name; its parent; its name record (index and count); IDatabase::GetObject
// of its full name gives the same object; a parameter is of the class the
// schema names and holds a record of the kind the schema gives. For every
// indexed child, the getter at and beyond the count fails with E_INVALIDARG
// and a null pointer. For every group, EnumObjects lists exactly the nodes
// the getters gave, in order. Every interface of the metadata is met.

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <string>
#include <typeinfo>
#include <vector>

#include "parameters/Parameter.h"
#include "schema/Database.h"
#include "schema/Metadata.h"
#include "schema/TypedGetters.h"
#include "support/Text.h"
#include "vorn/vorndb.h"

using namespace vorn;
using namespace vorn::schema;

namespace {

using vorn::test::TakeText;

// A value no getter writes: an out pointer preset to it shows whether a
// failing getter stored its null.
void* const kUntouched = reinterpret_cast<void*>(std::uintptr_t{1});

std::u16string Wide(const std::string& text) { return std::u16string(text.begin(), text.end()); }

IUnknown* IdentityOf(IUnknown* object) {
    ComPtr<IUnknown> identity;
    if (FAILED(object->QueryInterface(IID_IUnknown, identity.put_void()))) return nullptr;
    return identity.get();  // the tree keeps it alive
}

// The interface a node of each family answers, in the order of Family (a
// group's is its own group interface, IGroup here).
const IID* const kFamilyInterfaces[] = {
    &IID_IGroup,           &IID_IParameterBoolean,      &IID_IParameterInteger,   &IID_IParameterReal,
    &IID_IParameterString, &IID_IParameterIntegerArray, &IID_IParameterRealArray, &IID_IParameterBuffer};
static_assert(std::size(kFamilyInterfaces) == static_cast<std::size_t>(Family::Buffer) + 1);

std::string ClassName(const CDatabaseObjectImpl& node) {
    int status = 0;
    char* text = abi::__cxa_demangle(typeid(node).name(), nullptr, nullptr, &status);
    std::string name = status == 0 ? text : typeid(node).name();
    std::free(text);
    return name;
}

class TreeWalk {
public:
    explicit TreeWalk(IDatabase* db) : db_(db), meta_(GetSchemaMetadata()) {}

    // Walks the group `group` (of interface number `iface`) and everything
    // below it; `fullName` is the group's full name.
    void Group(IUnknown* group, std::uint32_t iface, const std::string& fullName) {
        ++groups;
        reached[iface] = true;
        std::vector<IUnknown*> handedOut;
        const InterfaceInfo& info = meta_.interfaces[iface];
        for (std::uint32_t number = 0; number < info.memberCount; ++number) {
            const MemberInfo& member = meta_.members[info.firstMember + number];
            const ULONG elements = member.count ? member.count : 1;
            for (ULONG i = 0; i < elements; ++i) {
                std::string name = member.name;
                if (member.count) name += "[" + std::to_string(i) + "]";
                const std::string full = fullName.empty() ? name : fullName + "." + name;
                IUnknown* node = Child(group, iface, number, i, member, full);
                if (!node) continue;
                handedOut.push_back(IdentityOf(node));
                CheckNode(node, group, member, i, name, full);
                if (member.family == Family::Group)
                    Group(node, member.childInterface, full);
                else
                    ++parameters;
            }
            if (member.count) CheckBounds(group, iface, number, member, fullName);
        }
        CheckChildTable(group, handedOut, fullName);
    }

    std::size_t groups = 0;
    std::size_t parameters = 0;
    std::vector<bool> reached = std::vector<bool>(GetSchemaMetadata().interfaces.size());  // by interface number
    std::vector<std::string> faults;

private:
    void Fault(const std::string& where, const std::string& what) {
        if (faults.size() < 50) faults.push_back(where + ": " + what);
    }

    // The node the typed getter hands out, queried for the interface its
    // member says; null (and a fault) when either fails.
    IUnknown* Child(IUnknown* group, std::uint32_t iface, std::uint32_t number, ULONG index, const MemberInfo& member,
                    const std::string& full) {
        void* out = kUntouched;
        const HRESULT hr = TypedGetters()[iface](group, number, index, &out);
        if (hr != S_OK || !out || out == kUntouched) {
            Fault(full, "typed getter returned " + std::to_string(hr));
            return nullptr;
        }
        auto* node = static_cast<IUnknown*>(out);
        const IID& expected = member.family == Family::Group
                                  ? meta_.interfaces[member.childInterface].iid
                                  : *kFamilyInterfaces[static_cast<std::size_t>(member.family)];
        void* face = nullptr;
        if (FAILED(node->QueryInterface(expected, &face)) || face != out) Fault(full, "not the face of its interface");
        if (face) static_cast<IUnknown*>(face)->Release();
        node->Release();  // the tree keeps it alive
        return node;
    }

    void CheckNode(IUnknown* node, IUnknown* group, const MemberInfo& member, ULONG index, const std::string& name,
                   const std::string& full) {
        ComPtr<IDatabaseObject> object;
        if (FAILED(node->QueryInterface(IID_IDatabaseObject, object.put_void()))) return Fault(full, "no node");
        BSTR text = nullptr;
        object->get_Name(&text);
        if (const std::string got = TakeText(text); got != name) Fault(full, "name " + got);
        text = nullptr;
        object->get_FullName(&text);
        if (const std::string got = TakeText(text); got != full) Fault(full, "full name " + got);

        ComPtr<IDatabaseObject> parent;
        if (object->get_Parent(parent.put()) != S_OK || IdentityOf(parent.get()) != IdentityOf(group))
            Fault(full, "parent is not its group");
        ComPtr<IUnknown> found;
        std::u16string wide = Wide(full);
        if (db_->GetObject(wide.data(), found.put()) != S_OK || found.get() != IdentityOf(node))
            Fault(full, "GetObject gives another object");

        const auto& impl = *static_cast<CDatabaseObjectImpl*>(object.get());
        const LONG count = member.count ? static_cast<LONG>(member.count) : -1;
        if (impl.Count() != count || impl.Index() != (member.count ? static_cast<LONG>(index) : -1))
            Fault(full, "name record index/count");
        if (member.family == Family::Group) return;
        const std::string cls = std::string("vorn::") + meta_.classes[member.parameterClass].name;
        if (ClassName(impl) != cls) Fault(full, "class " + ClassName(impl) + ", not " + cls);
        const auto& parameter = static_cast<const CParameter&>(impl);
        if (parameter.Defaults().Kind() != meta_.defaults[member.defaults].kind || !parameter.Defaults())
            Fault(full, std::string("defaults record is not ") + meta_.defaults[member.defaults].name);
    }

    // An indexed child's getter at its count and at the largest index.
    void CheckBounds(IUnknown* group, std::uint32_t iface, std::uint32_t number, const MemberInfo& member,
                     const std::string& fullName) {
        for (ULONG index : {static_cast<ULONG>(member.count), ~ULONG{0}}) {
            void* out = kUntouched;
            const HRESULT hr = TypedGetters()[iface](group, number, index, &out);
            if (hr != E_INVALIDARG || out != nullptr)
                Fault(fullName + "." + member.name + "[" + std::to_string(index) + "]", "not refused");
        }
    }

    void CheckChildTable(IUnknown* group, const std::vector<IUnknown*>& handedOut, const std::string& fullName) {
        ComPtr<IGroup> typed;
        ComPtr<IEnumUnknown> children;
        if (FAILED(group->QueryInterface(IID_IGroup, typed.put_void())) || typed->EnumObjects(children.put()) != S_OK)
            return Fault(fullName, "no EnumObjects");
        std::vector<IUnknown*> listed;
        for (;;) {
            IUnknown* child = nullptr;
            if (children->Next(1, &child, nullptr) != S_OK) break;
            listed.push_back(IdentityOf(child));
            child->Release();
        }
        if (listed != handedOut) Fault(fullName, "EnumObjects differs from the getters");
    }

    IDatabase* db_;
    const SchemaMetadata& meta_;
};

}  // namespace

TEST(SchemaWholeTree, EveryNodeReachableNamedAndResolvable) {
    ComPtr<IDatabase> db;
    ASSERT_EQ(CreateDatabase(IID_IDatabase, db.put_void()), S_OK);
    ComPtr<IRoot> root;
    ASSERT_EQ(db->get_Root(root.put()), S_OK);
    ASSERT_EQ(TypedGetters().size(), GetSchemaMetadata().interfaces.size());

    // Every getter adds the reference the walk releases: the database's
    // count is the same after the walk.
    db->AddRef();
    const ULONG referencesBefore = db->Release();
    TreeWalk walk(db.get());
    walk.Group(root.get(), GetSchemaMetadata().root, "");
    db->AddRef();
    EXPECT_EQ(db->Release(), referencesBefore);
    for (const std::string& fault : walk.faults) ADD_FAILURE() << fault;
    EXPECT_TRUE(walk.faults.empty());

    for (std::uint32_t i = 0; i < walk.reached.size(); ++i)
        EXPECT_TRUE(walk.reached[i]) << GetSchemaMetadata().interfaces[i].name << " is not in the tree";
    EXPECT_GE(walk.parameters, 10000u);
    RecordProperty("groups", static_cast<int>(walk.groups));
    RecordProperty("parameters", static_cast<int>(walk.parameters));
}

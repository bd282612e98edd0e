// The database class served by libvorndb.so, created through class
// activation as a client creates it: the module stays loaded while the
// object lives, creation with a null out pointer creates nothing, every full
// name resolves at once, and GetTypeLib hands out the schema's library.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "ModuleTestSupport.h"
#include "SchemaCheck.h"
#include "schema/Metadata.h"
#include "support/ScopedRegistry.h"
#include "vorn/database.h"

using vorn::test::CanUnloadNow;

namespace {

const char* const kModule = VORNDB_MODULE;

// Every full name of the tree, from the schema: members joined by ".",
// elements of indexed members as "Name[i]".
void CollectNames(std::uint32_t interfaceIndex, const std::string& prefix, std::vector<std::u16string>* out) {
    for (const vorn::schema::MemberInfo& member : vorn::schema::MembersOf(interfaceIndex)) {
        std::vector<std::string> names;
        if (member.count == 0) {
            names.push_back(prefix + member.name);
        } else {
            for (std::uint32_t i = 0; i < member.count; ++i)
                names.push_back(prefix + member.name + "[" + std::to_string(i) + "]");
        }
        for (const std::string& name : names) {
            out->emplace_back(name.begin(), name.end());
            if (member.family == vorn::schema::Family::Group) CollectNames(member.childInterface, name + ".", out);
        }
    }
}

class DatabaseModule : public vorn::test::RegisteredModuleTest {
protected:
    void SetUp() override { Register(kModule); }
};

TEST_F(DatabaseModule, LiveDatabaseHoldsTheModuleAndNamesResolveAtOnce) {
    // A null out pointer creates nothing: the module may still be unloaded.
    IClassFactory* factory = nullptr;
    ASSERT_EQ(CoGetClassObject(CLSID_Database, CLSCTX_INPROC_SERVER, nullptr, IID_IClassFactory,
                               reinterpret_cast<void**>(&factory)),
              S_OK);
    EXPECT_EQ(factory->CreateInstance(nullptr, IID_IDatabase, nullptr), E_POINTER);
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    factory->Release();

    CLSID clsid;
    ASSERT_EQ(CLSIDFromProgID(u"Zelmwerk.VORN.Database", &clsid), S_OK);
    IDatabase* database = nullptr;
    ASSERT_EQ(
        CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_IDatabase, reinterpret_cast<void**>(&database)),
        S_OK)
        << vorn::test::LastErrorText();
    EXPECT_EQ(CanUnloadNow(kModule), S_FALSE);
    CoFreeUnusedLibraries();
    ASSERT_NE(GetModuleHandleA(kModule), nullptr) << "a live database keeps its module";

    std::vector<std::u16string> names;
    CollectNames(vorn::schema::GetSchemaMetadata().root, "", &names);
    ASSERT_GT(names.size(), 100u);
    std::size_t unresolved = 0;
    for (std::u16string& name : names) {
        IUnknown* object = nullptr;
        if (database->GetObject(name.data(), &object) != S_OK || !object) {
            if (++unresolved <= 5) ADD_FAILURE() << "unresolved: " << std::string(name.begin(), name.end());
            continue;
        }
        object->Release();
    }
    EXPECT_EQ(unresolved, 0u) << "of " << names.size() << " names";

    ITypeLib* typeLib = nullptr;
    EXPECT_EQ(database->GetTypeLib(nullptr), E_POINTER);
    ASSERT_EQ(database->GetTypeLib(&typeLib), S_OK);
    ASSERT_NE(typeLib, nullptr);
    ExpectMatchesSchema(typeLib);
    typeLib->Release();

    database->Release();
    EXPECT_EQ(CanUnloadNow(kModule), S_OK);
    CoFreeUnusedLibraries();
    EXPECT_EQ(GetModuleHandleA(kModule), nullptr);
}

}  // namespace

// The tests' small type library; see TestTypeLib.h.
#include "TestTypeLib.h"

#include "TestIds.h"

using namespace vorn::typelib;

Library TestTypeLibrary() {
    Library lib;
    lib.libid = LIBID_VornTest;
    lib.majorVersion = 2;
    lib.minorVersion = 10;
    lib.name = "VornTestLib";
    lib.doc = "Test library \xC2\xB5";

    Type color;  // 0
    color.kind = TKIND_ENUM;
    color.name = "eCOLOR";
    color.members = {Member{0x40000000, "eCOLOR_RED", "", 0, 0, {VT_I4, 0, kNoType}, {}},
                     Member{0x40000001, "eCOLOR_GREEN", "green light", 0, 5, {VT_I4, 0, kNoType}, {}},
                     Member{0x40000002, "eCOLOR_DARK", "", 0, -3, {VT_I4, 0, kNoType}, {}}};
    lib.types.push_back(color);

    Type widget;  // 1
    widget.guid = IID_IVornTestWidget;
    widget.name = "IVornTestWidget";
    widget.doc = "The widget";
    widget.typeFlags = TYPEFLAG_FOLEAUTOMATION;
    widget.members = {
        Member{1,
               "Answer",
               "always 42",
               INVOKE_PROPERTYGET,
               0,
               {VT_HRESULT, 0, kNoType},
               {Param{"pValue", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_I4, 1, kNoType}}}},
        Member{2,
               "Paint",
               "",
               INVOKE_FUNC,
               0,
               {VT_HRESULT, 0, kNoType},
               {Param{"eColor", PARAMFLAG_FIN, {VT_USERDEFINED, 0, 0}},
                Param{"ppOther", PARAMFLAG_FOUT | PARAMFLAG_FRETVAL, {VT_USERDEFINED, 2, 2}}}},
    };
    lib.types.push_back(widget);

    Type derived;  // 2
    derived.guid = GUID{0x6d1c2a51, 0x51f3, 0x4c0e, {0x9a, 0x2b, 0x11, 0x7e, 0x3c, 0x88, 0x04, 0xa1}};
    derived.name = "IVornTestDerived";
    derived.base = 1;
    lib.types.push_back(derived);

    Type coclass;  // 3
    coclass.guid = CLSID_VornTestWidget;
    coclass.kind = TKIND_COCLASS;
    coclass.name = "TestWidget";
    coclass.base = 1;
    lib.types.push_back(coclass);
    return lib;
}

// Facts of the database tree as the generated metadata and public headers
// carry them: the root's children, array counts, member orders, defaults,
// enumerations, and the lookups over the tables.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

#include "schema/Metadata.h"
#include "vorn/groups.h"

using namespace vorn::schema;

namespace {

const SchemaMetadata& Meta() { return GetSchemaMetadata(); }

// The member `name` of interface `iface`, or nullptr (reported as a failure).
const MemberInfo* Member(std::string_view iface, std::string_view name) {
    std::uint32_t index = FindMember(FindInterface(iface), name);
    EXPECT_NE(index, kNone) << iface << "." << name;
    return index == kNone ? nullptr : &Meta().members[index];
}

std::vector<std::string> MemberNames(std::string_view iface) {
    std::vector<std::string> names;
    for (const MemberInfo& m : MembersOf(FindInterface(iface))) names.emplace_back(m.name);
    return names;
}

const DefaultsInfo& DefaultsOf(const MemberInfo& member) { return Meta().defaults[member.defaults]; }

bool SameGuid(const GUID& a, const GUID& b) { return std::memcmp(&a, &b, sizeof(GUID)) == 0; }

}  // namespace

TEST(SchemaRoot, HasTwentyChildGroupsInOrder) {
    const std::vector<std::string> expected = {"InstrumentConfigInfo",
                                               "OptionStateInfo",
                                               "EquipSettings",
                                               "EnhancementLabels",
                                               "EnhancementLabelsSaved",
                                               "UserSettings",
                                               "PNBoardDebugSettings",
                                               "GuiSettings",
                                               "ResidualCalculations",
                                               "OtherSettings",
                                               "NoiseFreqTable",
                                               "NoiseFreqTablePreset",
                                               "MeasurementControl",
                                               "MeasurementSettings",
                                               "DisplaySettings",
                                               "MeasurementResults",
                                               "Markers",
                                               "GateSettings",
                                               "LimitLineData",
                                               "TransducerFactorsData"};
    ASSERT_EQ(Meta().root, FindInterface("IRoot"));
    EXPECT_EQ(MemberNames("IRoot"), expected);
    std::span<const MemberInfo> root = MembersOf(Meta().root);
    for (std::uint32_t i = 0; i < root.size(); ++i) {
        EXPECT_EQ(root[i].dispid, i + 1) << root[i].name;
        EXPECT_EQ(root[i].family, Family::Group) << root[i].name;
        EXPECT_EQ(std::string(Meta().interfaces[root[i].childInterface].name), "I" + std::string(root[i].name));
    }
    EXPECT_EQ(Member("IRoot", "NoiseFreqTable")->count, 16u);
    EXPECT_EQ(Member("IRoot", "NoiseFreqTablePreset")->count, 4u);
    EXPECT_EQ(Member("IRoot", "Markers")->count, 0u) << "not indexed";
}

TEST(SchemaTree, ArrayCounts) {
    struct Case {
        const char* iface;
        const char* member;
        std::uint32_t count;
    };
    const Case cases[] = {
        {"INoiseFreqTable", "CarrierFreqOffset", 25},
        {"INoiseFreqTablePreset", "CarrierFreqOffsetPreset", 25},
        {"IUserPLLSettings", "AMMode", 1},
        {"IUserPLLSettings", "PLLMode", 16},
        {"IUserPLLSettings", "RPNMode", 2},
        {"IFreqBorder", "Border", 33},
        {"IEBaum", "Bands", 32},
        {"IFreqCorrV2", "LPN_LNA50dBCorr", 32},
        {"IInstrumentConfigInfo", "Recall", 15},
        {"IVCOLOOPSettings", "PremeasBands", 9},
        {"IVCOLOOPSettings", "PhaseDetHarmonics", 10},
        {"IVCOLOOPSettings", "SettingAvailabilities", 11},
        {"IVCOHarmonicResults", "VCOHarmonicRawTrace", 9},
        {"IVCOHarmonicResults", "VCOHarmonicDisplayTrace", 9},
        {"IVCOHarmonicResults", "VCOHeaderHarmonicTrace", 8},
        {"IVCOHarmonicSettings", "TraceHarmonic", 8},
        {"IPhaseNoiseSettings", "FreqOffsets", 25},
        {"IGuiSettings", "FreqOffsetReadOnly", 25},
        {"IPLLResults", "SpurList", 100},
        {"IPLLResults", "ActualSweepCounts", 25},
        {"IPhaseNoiseResults", "NoiseCorrectionData", 25},
        {"IAMNoiseResults", "AMNoiseSpotNoiseResults", 5},
        {"IMarkers", "TransientMarker", 5},
        {"ILimitLineData", "Line", 100},
        {"ITransducerFactorsData", "Factor", 100},
        {"IVCOTuningResults", "VCOTuningHeaderResults", 3},
        {"IVCOTuningPremeasResults", "MeasPoint", 8},
        {"IDCSwitchingSequence", "DCSequence", 5},
        {"ISpurSettings", "SpurSelection", 2},
        {"ISpotNoiseSettings", "SpotNoiseOffsets", 5},
    };
    for (const Case& c : cases) {
        const MemberInfo* m = Member(c.iface, c.member);
        if (m) {
            EXPECT_EQ(m->count, c.count) << c.iface << "." << c.member;
        }
    }
}

// Walks the tree from the root: every child interface resolves, no interface
// is its own ancestor, every interface is reached, and the whole tree holds
// ten thousand and more parameters.
TEST(SchemaTree, IsATreeReachingEveryInterface) {
    const SchemaMetadata& m = Meta();
    std::vector<bool> reached(m.interfaces.size()), open(m.interfaces.size());
    std::uint64_t groups = 0, parameters = 0;
    std::function<void(std::uint32_t, std::uint64_t)> walk = [&](std::uint32_t iface, std::uint64_t instances) {
        ASSERT_LT(iface, m.interfaces.size());
        ASSERT_FALSE(open[iface]) << m.interfaces[iface].name << " contains itself";
        open[iface] = reached[iface] = true;
        groups += instances;
        for (const MemberInfo& member : MembersOf(iface)) {
            std::uint64_t n = instances * (member.count ? member.count : 1);
            if (member.family == Family::Group) {
                walk(member.childInterface, n);
            } else {
                EXPECT_EQ(member.childInterface, kNone);
                parameters += n;
            }
        }
        open[iface] = false;
    };
    walk(m.root, 1);
    for (std::uint32_t i = 0; i < reached.size(); ++i) EXPECT_TRUE(reached[i]) << m.interfaces[i].name;
    EXPECT_EQ(m.interfaces.size(), 219u);
    EXPECT_GE(parameters, 10000u);
    EXPECT_GT(groups, m.interfaces.size());
}

TEST(SchemaTree, MembersAreContiguousUniqueAndNumbered) {
    const SchemaMetadata& m = Meta();
    std::uint32_t next = 0;
    for (const InterfaceInfo& iface : m.interfaces) {
        EXPECT_EQ(iface.firstMember, next) << iface.name;
        EXPECT_STREQ(iface.base, "IGroup");
        next += iface.memberCount;
        std::set<std::string> names;
        std::uint32_t dispid = 1;
        for (const MemberInfo& member : MembersOf(static_cast<std::uint32_t>(&iface - m.interfaces.data()))) {
            EXPECT_TRUE(names.insert(member.name).second) << iface.name << "." << member.name << " twice";
            EXPECT_EQ(member.dispid, dispid++) << iface.name << "." << member.name;
            if (member.count != 0) {
                EXPECT_EQ(member.family, Family::Group) << "only groups are indexed";
            }
        }
    }
    EXPECT_EQ(next, m.members.size());
}

TEST(SchemaTree, MemberOrdersGivenInFull) {
    EXPECT_EQ(MemberNames("IDCPort1"),
              (std::vector<std::string>{"EnablePortState", "EnablePort", "SupplyVoltageMinState", "SupplyVoltageMin",
                                        "SupplyVoltageMaxState", "SupplyVoltageMax", "SupplyVoltageCurrentState",
                                        "SupplyVoltageCurrent", "SupplyVoltageMeasState", "SupplyCurrentMaxState",
                                        "SupplyCurrentMax", "PushingVoltage"}));
    EXPECT_EQ(MemberNames("IMeasurementControl"),
              (std::vector<std::string>{"PhaseNoiseSubSequence", "InputStatus", "OutputStatus", "Sequence",
                                        "DisplayActive", "GuiInitiated"}));
    EXPECT_EQ(MemberNames("IMarkerZoom"),
              (std::vector<std::string>{"ZoomActive", "ZoomStart", "ZoomStop", "MagFactor"}));
    EXPECT_EQ(MemberNames("IPhaseNoiseMarker"),
              (std::vector<std::string>{"Name", "Valid", "On", "Delta", "X", "Y", "AbsX", "Visible", "Type", "OnTrace",
                                        "Coupled"}));
    std::vector<std::string> settings = MemberNames("IPhaseNoiseSettings");
    ASSERT_EQ(settings.size(), 53u);
    EXPECT_EQ(settings.front(), "RecentlyUsed");
    EXPECT_EQ(settings.back(), "TransducerFactorNames");
    auto at = [&](const char* name) { return std::find(settings.begin(), settings.end(), name) - settings.begin(); };
    EXPECT_EQ(at("FreqOffsets"), at("TotalMeasTimeEx") + 1);
    EXPECT_EQ(at("SweepMode"), at("FreqOffsets") + 1);
    EXPECT_EQ(MemberNames("ILine").back(), "SaveFile");
    EXPECT_EQ(MemberNames("ICarrierFreqOffset"),
              (std::vector<std::string>{"Start", "Stop", "RBW", "SweepCount", "FFTFilter"}));
}

TEST(SchemaParameters, ClassesMatchTheirMembers) {
    const SchemaMetadata& m = Meta();
    for (const MemberInfo& member : m.members) {
        if (member.family == Family::Group) {
            EXPECT_EQ(member.parameterClass, kNone);
            EXPECT_EQ(member.defaults, kNone);
            continue;
        }
        ASSERT_LT(member.parameterClass, m.classes.size()) << member.name;
        ASSERT_LT(member.defaults, m.defaults.size()) << member.name;
        EXPECT_EQ(m.classes[member.parameterClass].family, member.family) << member.name;
        if (member.enumeration != kNone) {
            EXPECT_EQ(member.family, Family::Integer) << member.name;
            EXPECT_EQ(DefaultsOf(member).count, m.enumerations[member.enumeration].memberCount) << member.name;
        }
    }
    for (const ParameterClassInfo& c : m.classes) {
        if (c.base != kNone) {
            EXPECT_EQ(m.classes[c.base].family, c.family) << c.name;
        }
    }
    const ParameterClassInfo& x =
        m.classes[m.members[FindMember(FindInterface("IPhaseNoiseMarker"), "X")].parameterClass];
    EXPECT_STREQ(x.name, "CParameterPhaseNoiseMarkerX");
    ASSERT_NE(x.pending, nullptr);
    EXPECT_STREQ(x.pending, "markers");
    EXPECT_STREQ(m.classes[x.base].name, "CParameterMarkerX");
    EXPECT_EQ(m.classes[FindParameterClass("CParameterReal")].pending, nullptr);
}

TEST(SchemaParameters, DefaultsGivenForTheTree) {
    const DefaultsInfo& vmin = DefaultsOf(*Member("IDCPort1", "SupplyVoltageMin"));
    EXPECT_EQ(vmin.kind, DefaultsKind::RealValueMinMax);
    EXPECT_EQ(vmin.unit, static_cast<std::uint32_t>(eUNIT_VOLT));
    EXPECT_EQ(vmin.realValue, 4.75);
    EXPECT_EQ(vmin.realMinimum, 0.0);
    EXPECT_EQ(vmin.realMaximum, 1000.0);

    const DefaultsInfo& pushing = DefaultsOf(*Member("IDCPort2", "PushingVoltage"));
    EXPECT_EQ(pushing.kind, DefaultsKind::RealSettingIncDec);
    EXPECT_EQ(pushing.smallStep, 0.001);
    EXPECT_EQ(pushing.largeStep, 0.01);

    const MemberInfo& sequence = *Member("IMeasurementControl", "Sequence");
    EXPECT_STREQ(Meta().classes[sequence.parameterClass].name, "CParameterNoLoadSave");
    EXPECT_EQ(DefaultsOf(sequence).count, 30u);
    EXPECT_EQ(sequence.enumeration, FindEnumeration("eSEQ"));

    const DefaultsInfo& start = DefaultsOf(*Member("IPhaseNoiseSettings", "XAxisStart"));
    EXPECT_EQ(start.kind, DefaultsKind::EnumValue);
    EXPECT_EQ(start.count, 26u);
    EXPECT_EQ(start.value, static_cast<std::uint32_t>(eFREQSTART_1KHZ));

    const DefaultsInfo& saved = DefaultsOf(*Member("IUserPLLSettings", "SavedConfig"));
    EXPECT_EQ(saved.kind, DefaultsKind::Enum);
    EXPECT_EQ(saved.count, 17u);

    EXPECT_EQ(DefaultsOf(*Member("ILine", "Units")).value, static_cast<std::uint32_t>(eLLUNIT_DBC_HZ));
    EXPECT_EQ(DefaultsOf(*Member("IPhaseNoiseSettings", "SignalFreq")).kind, DefaultsKind::RealValueMinMaxNoReset);
    EXPECT_EQ(std::u16string(DefaultsOf(*Member("IPhaseNoiseMarker", "Name")).text), u" ");
    EXPECT_EQ(std::u16string(DefaultsOf(*Member("IDCSettings", "SaveFileName")).text), u"dc_settings");

    const DefaultsInfo& screens = DefaultsOf(*Member("IDisplaySettings", "ScreenTraceConfig"));
    EXPECT_EQ(screens.kind, DefaultsKind::IntegerArray);
    EXPECT_EQ(screens.count, 2u);
    const DefaultsInfo& trace = DefaultsOf(*Member("IRawTrace", "X"));
    EXPECT_EQ(trace.kind, DefaultsKind::RealArray);
    EXPECT_EQ(trace.count, 102400u);
    EXPECT_EQ(trace.unit, static_cast<std::uint32_t>(eUNIT_HZ));
    const DefaultsInfo& iq = DefaultsOf(*Member("IPLLResults", "IData"));
    EXPECT_EQ(iq.kind, DefaultsKind::Buffer);
    EXPECT_EQ(std::vector<std::uint32_t>(std::begin(iq.shape), std::end(iq.shape)),
              (std::vector<std::uint32_t>{1, 4, 1, 0, 0}));
}

TEST(SchemaEnumerations, ListedAndValued) {
    const SchemaMetadata& m = Meta();
    std::size_t listed = 0;
    std::set<std::string> enumerators;
    for (const EnumerationInfo& e : m.enumerations) {
        if (!e.outline) ++listed;
        for (const EnumMemberInfo& member :
             MembersOfEnumeration(static_cast<std::uint32_t>(&e - m.enumerations.data())))
            EXPECT_TRUE(enumerators.insert(member.name).second) << member.name;
    }
    EXPECT_EQ(listed, 86u);
    EXPECT_EQ(m.enumerations.size(), 89u) << "with the three hardware enumerations";

    std::span<const EnumMemberInfo> units = MembersOfEnumeration(FindEnumeration("eUNIT"));
    ASSERT_EQ(units.size(), 22u);
    for (std::size_t i = 0; i < units.size(); ++i) EXPECT_EQ(units[i].value, static_cast<std::int32_t>(i));
    EXPECT_STREQ(units.front().name, "eUNIT_NONE");
    EXPECT_STREQ(units[4].name, "eUNIT_HZ");
    EXPECT_STREQ(units.back().name, "eUNIT_VOLT_VOLT");
    EXPECT_EQ(units.back().value, eUNIT_VOLT_VOLT);
    EXPECT_EQ(MembersOfEnumeration(FindEnumeration("eSTATUS"))[1].value, eSTATUS_INVALID);
    EXPECT_EQ(MembersOfEnumeration(FindEnumeration("eSTEP"))[1].value, eSTEP_LARGE);
    EXPECT_EQ(MembersOfEnumeration(FindEnumeration("eMESSAGE")).back().value, eMESSAGE_MAX);
}

TEST(SchemaLookups, ByNameAndIid) {
    const SchemaMetadata& m = Meta();
    for (std::uint32_t i = 0; i < m.interfaces.size(); ++i) {
        EXPECT_EQ(FindInterface(m.interfaces[i].name), i);
        EXPECT_EQ(FindInterfaceByIid(m.interfaces[i].iid), i) << "IIDs are unique";
    }
    for (std::uint32_t i = 0; i < m.classes.size(); ++i) EXPECT_EQ(FindParameterClass(m.classes[i].name), i);
    for (std::uint32_t i = 0; i < m.defaults.size(); ++i) EXPECT_EQ(FindDefaults(m.defaults[i].name), i);
    for (std::uint32_t i = 0; i < m.enumerations.size(); ++i) EXPECT_EQ(FindEnumeration(m.enumerations[i].name), i);

    EXPECT_EQ(FindInterface("iroot"), kNone) << "case-sensitive";
    EXPECT_EQ(FindInterface(""), kNone);
    EXPECT_EQ(FindInterface("IZZZ"), kNone);
    EXPECT_EQ(FindEnumeration("eUNIT_HZ"), kNone);
    EXPECT_EQ(FindMember(m.root, "Marker"), kNone);
    EXPECT_EQ(FindMember(kNone, "Markers"), kNone);
    EXPECT_TRUE(MembersOf(static_cast<std::uint32_t>(m.interfaces.size())).empty());
    EXPECT_TRUE(MembersOfEnumeration(kNone).empty());
    GUID unknown = IID_IRoot;
    unknown.Data1 ^= 1;
    EXPECT_EQ(FindInterfaceByIid(unknown), kNone);
    EXPECT_STREQ(FamilyInterfaceName(Family::RealArray), "IParameterRealArray");
    EXPECT_STREQ(FamilyInterfaceName(Family::Group), "IGroup");
}

TEST(SchemaLookups, MetadataMatchesThePublicHeader) {
    const SchemaMetadata& m = Meta();
    EXPECT_TRUE(SameGuid(m.interfaces[m.root].iid, IID_IRoot));
    EXPECT_TRUE(SameGuid(VORN_UUIDOF(IPhaseNoiseSettings), m.interfaces[FindInterface("IPhaseNoiseSettings")].iid));
    EXPECT_TRUE(
        SameGuid(VORN_UUIDOF(ITransducerFactorsData), m.interfaces[FindInterface("ITransducerFactorsData")].iid));
    EXPECT_TRUE(SameGuid(m.libid, LIBID_VORNDBLib));
    EXPECT_STREQ(m.libraryName, "VORNDBLib");
}

// Facts of the database tree as the generated metadata and public headers
// carry them: array counts, the tables' invariants, member orders, classes and
// defaults the live tree tests (test_tree.cpp) do not read, enumerations, and
// the lookups over the tables.

#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <sstream>
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

TEST(SchemaTree, ArrayCounts) {
    std::istringstream expected(
        "INoiseFreqTable.CarrierFreqOffset[25] INoiseFreqTablePreset.CarrierFreqOffsetPreset[25] "
        "IUserPLLSettings.AMMode[1] IUserPLLSettings.PLLMode[16] IUserPLLSettings.RPNMode[2] "
        "IFreqBorder.Border[33] IEBaum.Bands[32] IFreqCorrV2.LPN_LNA50dBCorr[32] "
        "IInstrumentConfigInfo.Recall[15] IVCOLOOPSettings.PremeasBands[9] "
        "IVCOLOOPSettings.PhaseDetHarmonics[10] IVCOLOOPSettings.SettingAvailabilities[11] "
        "IVCOHarmonicResults.VCOHarmonicRawTrace[9] IVCOHarmonicResults.VCOHarmonicDisplayTrace[9] "
        "IVCOHarmonicResults.VCOHeaderHarmonicTrace[8] IVCOHarmonicSettings.TraceHarmonic[8] "
        "IPhaseNoiseSettings.FreqOffsets[25] IGuiSettings.FreqOffsetReadOnly[25] IPLLResults.SpurList[100] "
        "IPLLResults.ActualSweepCounts[25] IPhaseNoiseResults.NoiseCorrectionData[25] "
        "IAMNoiseResults.AMNoiseSpotNoiseResults[5] IMarkers.TransientMarker[5] ILimitLineData.Line[100] "
        "ITransducerFactorsData.Factor[100] IVCOTuningResults.VCOTuningHeaderResults[3] "
        "IVCOTuningPremeasResults.MeasPoint[8] IDCSwitchingSequence.DCSequence[5] "
        "ISpurSettings.SpurSelection[2] ISpotNoiseSettings.SpotNoiseOffsets[5]");
    for (std::string entry; expected >> entry;) {
        const std::size_t dot = entry.find('.'), bracket = entry.find('[');
        const MemberInfo* m = Member(entry.substr(0, dot), entry.substr(dot + 1, bracket - dot - 1));
        if (m) {
            EXPECT_EQ(entry.substr(bracket), "[" + std::to_string(m->count) + "]") << entry;
        }
    }
}

// The tables' invariants: each interface's members follow the previous
// interface's and have unique names and dispatch identifiers 1, 2, ...; only
// groups are indexed and have child interfaces; a parameter's class is of its
// family (and so is a class's base), and an enumerated parameter's record has
// as many values as its enumeration.
TEST(SchemaTree, TablesAreConsistent) {
    const SchemaMetadata& m = Meta();
    std::uint32_t next = 0;
    for (std::uint32_t i = 0; i < m.interfaces.size(); ++i) {
        const InterfaceInfo& iface = m.interfaces[i];
        EXPECT_EQ(iface.firstMember, next) << iface.name;
        EXPECT_STREQ(iface.base, "IGroup");
        next += iface.memberCount;
        std::set<std::string> names;
        std::uint32_t dispid = 1;
        for (const MemberInfo& member : MembersOf(i)) {
            SCOPED_TRACE(std::string(iface.name) + "." + member.name);
            EXPECT_TRUE(names.insert(member.name).second) << "twice";
            EXPECT_EQ(member.dispid, dispid++);
            if (member.family == Family::Group) {
                EXPECT_EQ(member.parameterClass, kNone);
                EXPECT_EQ(member.defaults, kNone);
                continue;
            }
            EXPECT_EQ(member.count, 0u) << "only groups are indexed";
            EXPECT_EQ(member.childInterface, kNone);
            ASSERT_LT(member.parameterClass, m.classes.size());
            ASSERT_LT(member.defaults, m.defaults.size());
            EXPECT_EQ(m.classes[member.parameterClass].family, member.family);
            if (member.enumeration != kNone) {
                EXPECT_EQ(member.family, Family::Integer);
                EXPECT_EQ(DefaultsOf(member).count, m.enumerations[member.enumeration].memberCount);
            }
        }
    }
    EXPECT_EQ(next, m.members.size());
    for (const ParameterClassInfo& c : m.classes) {
        if (c.base != kNone) {
            EXPECT_EQ(m.classes[c.base].family, c.family) << c.name;
        }
    }
}

// Member orders the live tree tests do not see (they check DCPort1,
// MeasurementControl and PhaseNoiseSettings).
TEST(SchemaTree, MemberOrdersGivenInFull) {
    EXPECT_EQ(MemberNames("IMarkerZoom"),
              (std::vector<std::string>{"ZoomActive", "ZoomStart", "ZoomStop", "MagFactor"}));
    EXPECT_EQ(MemberNames("IPhaseNoiseMarker"),
              (std::vector<std::string>{"Name", "Valid", "On", "Delta", "X", "Y", "AbsX", "Visible", "Type", "OnTrace",
                                        "Coupled"}));
    EXPECT_EQ(MemberNames("ILine").back(), "SaveFile");
    EXPECT_EQ(MemberNames("ICarrierFreqOffset"),
              (std::vector<std::string>{"Start", "Stop", "RBW", "SweepCount", "FFTFilter"}));
}

// Classes and defaults beyond the three groups the live tree tests check.
TEST(SchemaParameters, ClassesAndDefaultsGivenForTheTree) {
    const SchemaMetadata& m = Meta();
    const ParameterClassInfo& x = m.classes[Member("IPhaseNoiseMarker", "X")->parameterClass];
    EXPECT_STREQ(x.name, "CParameterPhaseNoiseMarkerX");
    EXPECT_EQ(x.pending, nullptr);
    EXPECT_STREQ(m.classes[x.base].name, "CParameterMarkerX");
    const ParameterClassInfo& signal = m.classes[FindParameterClass("CParameterSignalFreq")];
    ASSERT_NE(signal.pending, nullptr);
    EXPECT_STREQ(signal.pending, "coupling");
    EXPECT_EQ(m.classes[FindParameterClass("CParameterReal")].pending, nullptr);
    const MemberInfo& sequence = *Member("IMeasurementControl", "Sequence");
    EXPECT_STREQ(m.classes[sequence.parameterClass].name, "CParameterNoLoadSave");
    EXPECT_EQ(sequence.enumeration, FindEnumeration("eSEQ"));

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
    for (std::uint32_t i = 0; i < m.enumerations.size(); ++i) {
        if (!m.enumerations[i].outline) ++listed;
        for (const EnumMemberInfo& member : MembersOfEnumeration(i))
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
}

// The lookups over the tables, and the metadata's identifiers against those
// of the public header.
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

    EXPECT_EQ(m.root, FindInterface("IRoot"));
    EXPECT_TRUE(SameGuid(m.interfaces[m.root].iid, IID_IRoot));
    EXPECT_TRUE(SameGuid(VORN_UUIDOF(IPhaseNoiseSettings), m.interfaces[FindInterface("IPhaseNoiseSettings")].iid));
    EXPECT_TRUE(
        SameGuid(VORN_UUIDOF(ITransducerFactorsData), m.interfaces[FindInterface("ITransducerFactorsData")].iid));
    EXPECT_TRUE(SameGuid(m.libid, LIBID_VORNDBLib));
    EXPECT_STREQ(m.libraryName, "VORNDBLib");
}

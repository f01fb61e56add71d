// Kernel-version conditions, program file names and build-type values of the attachment code. The
// attachment itself runs against the real kernel in attach_test.cpp.

#include <android/api-level.h>
#include <gtest/gtest.h>

#include "kova_test_support.h"
#include "service/kova_bpf_helper.h"
#include "service/kova_bpf_service.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;

TEST(VersionTest, MajorTimesThousandPlusMinorFromTheLeadingDigitsOfTheFirstTwoPieces) {
    const struct {
        const char* version;
        int expected;
    } cases[] = {
            {"6.1", 6001},  {"5.10.198", 5010},         {"0.0", 0},          {"6.18.44-fc-v669", 6018},
            {"10-rc1.2", 10002}, {"5.15.0-android13", 5015}, {"..5..4", 5004}, {"5.999", 5999},
    };
    for (const auto& c : cases) EXPECT_EQ(convertVersionToInt(c.version), c.expected) << c.version;
}

TEST(VersionDeathTest, TextWithoutTwoLeadingNumbersEndsTheProcess) {
    for (const char* version : {"", "5", "abc.1", "5.x", "v5.10", "."}) {
        EXPECT_DEATH(convertVersionToInt(version), "Not a version number") << version;
    }
    EXPECT_DEATH(convertVersionToInt("99999999999.1"), "Version number out of range");
}

TEST(CompatibilityTest, ConditionsCompareMajorAndMinorAsNumbers) {
    const struct {
        const char* kernel;  // nullptr: "ro.kernel.version" unset, which counts as 0.0
        const char* condition;
        bool holds;
    } cases[] = {
            // At least, at most, an inclusive range, exactly; bounds inclusive.
            {"5.10", "5.0+", true},   {"5.10", "6.1+", false},      {"5.10", "5.10", true},
            {"5.10", "5.15-", true},  {"5.10", "5.4-5.15", true},   {"5.10", "5.4-", false},
            {"5.10", "5.9", false},   {"5.10.198", "5.10.3", true}, {"5.10", "5.10+", true},
            {"5.10", "5.10-", true},  {"5.10", "5.10-5.10", true},  {"5.10", "5.11-6.1", false},
            // 5.10 is later than 5.4 although "5.10" < "5.4" as text.
            {"5.10", "5.4+", true},   {"5.4", "5.10-", true},       {"6.1", "5.4-5.15", false},
            {"4.19", "5.0+", false},  {"4.19", "4.19", true},       {"6.18.44-fc-v669", "6.1+", true},
            {nullptr, "5.0+", false}, {nullptr, "0.0+", true},      {nullptr, "5.4-", true},
    };
    for (const auto& c : cases) {
        ScopedPropertyStore properties;
        if (c.kernel != nullptr) properties.Set("ro.kernel.version", c.kernel);
        EXPECT_EQ(CheckBpfCompatibility(c.condition), c.holds)
                << "kernel " << (c.kernel ? c.kernel : "unset") << ", condition " << c.condition;
    }
}

TEST(CompatibilityDeathTest, MalformedConditionsEndTheProcess) {
    ScopedPropertyStore properties;
    properties.Set("ro.kernel.version", "5.10");
    EXPECT_DEATH(CheckBpfCompatibility(""), "Not a version number");
    EXPECT_DEATH(CheckBpfCompatibility("any+"), "Not a version number");
    EXPECT_DEATH(CheckBpfCompatibility("-5.4"), "Not a version range");
    properties.Set("ro.kernel.version", "unknown");
    EXPECT_DEATH(CheckBpfCompatibility("5.0+"), "Not a version number: \"unknown\"");
}

TEST(ProgramNameTest, OnlyNamesBeginningWithProgUnderscoreArePrograms) {
    const std::pair<const char*, bool> cases[] = {
            {"prog_KovaBpfDefineset_kprobe_enter_fd_install", true}, {"prog_", true},
            {"map_KovaBpfDefineset_ringbuf_map", false}, {"xprog_a", false}, {"prog", false},
            {"Prog_a", false}, {"", false}};
    for (const auto& [name, isProgram] : cases) EXPECT_EQ(IsBpfProg(name), isProgram) << name;
}

TEST(BuildTypeTest, APreReleaseTakesApiLevel10000AndBothModulesRecordTheValueAtLoad) {
    // Nothing has changed the host's properties since this process loaded the library.
    const PlatformBuildType host = ReadPlatformBuildType();
    for (const PlatformBuildType& recorded : {ATTACH_BUILD_TYPE, KovaBpfService::BUILD_TYPE}) {
        EXPECT_EQ(recorded.isPreRelease, host.isPreRelease);
        EXPECT_EQ(recorded.deviceApiLevel, host.isPreRelease ? 10000 : android_get_device_api_level());
    }

    ScopedPropertyStore properties;
    properties.Set("ro.build.version.sdk", "33");
    EXPECT_FALSE(ReadPlatformBuildType().isPreRelease);  // codename unset reads as "REL"
    EXPECT_EQ(ReadPlatformBuildType().deviceApiLevel, 33);
    properties.Set("ro.build.version.codename", "VanillaIceCream");
    EXPECT_TRUE(ReadPlatformBuildType().isPreRelease);
    EXPECT_EQ(ReadPlatformBuildType().deviceApiLevel, 10000);
}

}  // namespace
}  // namespace kova::test

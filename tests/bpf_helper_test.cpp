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
            {"6.1", 6001},          {"5.10", 5010},        {"5.10.198", 5010},
            {"0.0", 0},             {"4.19", 4019},        {"6.18.44-fc-v669", 6018},
            {"5.15.0-android13", 5015}, {"10-rc1.2", 10002}, {"6.1-rc3", 6001},
            {"..5..4", 5004},       {"5.999", 5999},       {"2.6.32", 2006},
    };
    for (const auto& c : cases) EXPECT_EQ(convertVersionToInt(c.version), c.expected) << c.version;
}

TEST(VersionDeathTest, TextWithoutTwoLeadingNumbersEndsTheProcess) {
    for (const char* version : {"", "5", "abc.1", "5.x", "v5.10", "."}) {
        EXPECT_DEATH(convertVersionToInt(version), "Not a version number") << version;
    }
    EXPECT_DEATH(convertVersionToInt("99999999999.1"), "Version number out of range");
}

class CompatibilityTest : public ::testing::Test {
  protected:
    bool HoldsOn(const std::string& kernel, const std::string& condition) {
        properties_.Set("ro.kernel.version", kernel);
        return CheckBpfCompatibility(condition);
    }
    ScopedPropertyStore properties_;
};

TEST_F(CompatibilityTest, ConditionsCompareMajorAndMinorAsNumbers) {
    const struct {
        const char* kernel;
        const char* condition;
        bool holds;
    } cases[] = {
            // At least, at most, an inclusive range, exactly.
            {"5.10", "5.0+", true},       {"5.10", "6.1+", false},    {"5.10", "5.10", true},
            {"5.10", "5.15-", true},      {"5.10", "5.4-5.15", true}, {"5.10", "5.4-", false},
            {"5.10", "5.9", false},       {"5.10.198", "5.10.3", true}, {"5.10", "5.10+", true},
            {"5.10", "5.10-", true},      {"5.10", "5.10-5.10", true}, {"5.10", "5.11-6.1", false},
            // 5.10 is later than 5.4 although "5.10" < "5.4" as text.
            {"5.10", "5.4+", true},       {"5.4", "5.10-", true},
            {"6.1", "6.1+", true},        {"6.1", "5.0+", true},      {"6.1", "5.4-5.15", false},
            {"4.19", "5.0+", false},      {"4.19", "6.1+", false},    {"4.19", "4.19", true},
            {"6.18.44-fc-v669", "6.1+", true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(HoldsOn(c.kernel, c.condition), c.holds) << "kernel " << c.kernel << ", condition " << c.condition;
    }
}

TEST_F(CompatibilityTest, AnUnsetKernelVersionCountsAsZero) {
    EXPECT_FALSE(CheckBpfCompatibility("5.0+"));
    EXPECT_TRUE(CheckBpfCompatibility("0.0+"));
    EXPECT_TRUE(CheckBpfCompatibility("5.4-"));
    EXPECT_TRUE(CheckBpfCompatibility("0.0"));
}

TEST_F(CompatibilityTest, MalformedConditionsEndTheProcess) {
    properties_.Set("ro.kernel.version", "5.10");
    EXPECT_DEATH(CheckBpfCompatibility(""), "Not a version number");
    EXPECT_DEATH(CheckBpfCompatibility("any+"), "Not a version number");
    EXPECT_DEATH(CheckBpfCompatibility("-5.4"), "Not a version range");
    properties_.Set("ro.kernel.version", "unknown");
    EXPECT_DEATH(CheckBpfCompatibility("5.0+"), "Not a version number: \"unknown\"");
}

TEST(ProgramNameTest, OnlyNamesBeginningWithProgUnderscoreArePrograms) {
    EXPECT_TRUE(IsBpfProg("prog_KovaBpfDefineset_kprobe_enter_fd_install"));
    EXPECT_TRUE(IsBpfProg("prog_"));
    EXPECT_FALSE(IsBpfProg("map_KovaBpfDefineset_ringbuf_map"));
    EXPECT_FALSE(IsBpfProg("xprog_a"));
    EXPECT_FALSE(IsBpfProg("prog"));
    EXPECT_FALSE(IsBpfProg("Prog_a"));
    EXPECT_FALSE(IsBpfProg(""));
}

TEST(BuildTypeTest, APreReleaseTakesApiLevel10000) {
    ScopedPropertyStore properties;
    properties.Set("ro.build.version.sdk", "33");
    PlatformBuildType release = ReadPlatformBuildType();  // codename unset reads as "REL"
    EXPECT_FALSE(release.isPreRelease);
    EXPECT_EQ(release.deviceApiLevel, 33);

    properties.Set("ro.build.version.codename", "REL");
    EXPECT_FALSE(ReadPlatformBuildType().isPreRelease);

    properties.Set("ro.build.version.codename", "VanillaIceCream");
    const PlatformBuildType preRelease = ReadPlatformBuildType();
    EXPECT_TRUE(preRelease.isPreRelease);
    EXPECT_EQ(preRelease.deviceApiLevel, 10000);
}

TEST(BuildTypeTest, BothModulesRecordTheirValuesAtLoad) {
    // Nothing has changed the host's properties since this process loaded the library.
    const PlatformBuildType now = ReadPlatformBuildType();
    for (const PlatformBuildType& recorded : {ATTACH_BUILD_TYPE, KovaBpfService::BUILD_TYPE}) {
        EXPECT_EQ(recorded.isPreRelease, now.isPreRelease);
        EXPECT_EQ(recorded.deviceApiLevel, now.isPreRelease ? 10000 : android_get_device_api_level());
    }
}

}  // namespace
}  // namespace kova::test

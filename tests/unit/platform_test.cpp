/// Device access and IPv6 status publication: what reaches the proc files, the configuration store
/// and the omci command.

#include "platform.h"

#include "fakes/files.h"
#include "fakes/journal.h"
#include "fakes/vendor.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <limits>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace {

using fakes::files;
using fakes::journal;
using fakes::Lines;
using fakes::vendor;

const std::string gpioPath = "/proc/tc3162/gpio_output";
const std::string buttonPath = "/proc/tc3162/reset_button";

class Led : public testing::Test {
protected:
    Led() { files().content[gpioPath] = ""; }

    /// The commands that the driver saw.
    static Lines takeCommands() { return journal().take({"write"}); }

    static Lines command(const std::string &text) { return {"write " + gpioPath + ": " + text}; }
};

TEST_F(Led, IsLitByDrivingItsLineTo0)
{
    EXPECT_EQ(platform_ledSet(6, 1), 0);
    EXPECT_EQ(takeCommands(), command("active 6 0\n"));
}

TEST_F(Led, IsDarkenedByDrivingItsLineTo1)
{
    EXPECT_EQ(platform_ledSet(6, 0), 0);
    EXPECT_EQ(takeCommands(), command("active 6 1\n"));
}

TEST_F(Led, IsLitByAnyNonzeroValue)
{
    platform_ledSet(2, 255);
    EXPECT_EQ(takeCommands(), command("active 2 0\n"));
    platform_ledSet(2, 2);
    EXPECT_EQ(takeCommands(), command("active 2 0\n"));
}

TEST_F(Led, TakesEveryLineNumber)
{
    for (int gpio = 0; gpio <= 255; gpio++) {
        platform_ledSet(static_cast<uint8_t>(gpio), 0);
        EXPECT_EQ(takeCommands(), command("active " + std::to_string(gpio) + " 1\n"));
    }
}

TEST_F(Led, StartsDark)
{
    EXPECT_EQ(platform_ledInit(4), 0);
    EXPECT_EQ(takeCommands(), command("active 4 1\n"));
}

TEST_F(Led, IsWrittenAnewEachTimeWithNothingLeftOpen)
{
    for (int i = 0; i < 3; i++) {
        platform_ledSet(7, 1);
        EXPECT_EQ(files().openCount, 0U);
        EXPECT_EQ(files().content[gpioPath], "active 7 0\n"); // each open empties the file
    }
    EXPECT_EQ(takeCommands().size(), 3U);
}

TEST_F(Led, IsLeftAloneWhenTheDriverCannotBeOpened)
{
    files().openErrors[gpioPath] = EACCES;
    EXPECT_EQ(platform_ledSet(6, 1), 0);
    EXPECT_EQ(platform_ledInit(6), 0);
    EXPECT_EQ(takeCommands(), Lines{});
    EXPECT_EQ(journal().take({"close", "log", "stderr"}), Lines{});
}

TEST_F(Led, IgnoresFailedWriteAndClose)
{
    files().writesFail = true;
    files().closeFails = true;
    EXPECT_EQ(platform_ledSet(6, 1), 0);
    EXPECT_EQ(files().openCount, 0U);
}

struct ButtonFile {
    const char *content;
    int value;
};

void PrintTo(const ButtonFile &file, std::ostream *out)
{
    *out << testing::PrintToString(file.content);
}

/// Leaves a number on the stack where the next call finds it in a variable that it did not set.
[[gnu::noinline]] void leaveNumbersOnTheStack()
{
    volatile int numbers[1024];
    for (volatile int &number : numbers)
        number = 77;
}

class ResetButton : public testing::TestWithParam<ButtonFile> {};

TEST_P(ResetButton, IsTheNumberAtTheStartOfTheFile)
{
    files().content[buttonPath] = GetParam().content;
    leaveNumbersOnTheStack();
    EXPECT_EQ(platform_getResetButton(), GetParam().value);
    EXPECT_EQ(files().openCount, 0U);
}

INSTANTIATE_TEST_SUITE_P(File, ResetButton,
                         testing::Values(ButtonFile{"0", 0}, ButtonFile{"0\n", 0},
                                         ButtonFile{"3\n", 3}, ButtonFile{"-1\n", -1},
                                         ButtonFile{"5", 5}, ButtonFile{"2147483647\n", 2147483647},
                                         ButtonFile{"  \n\t 12 34", 12}, ButtonFile{"+4", 4},
                                         ButtonFile{"010\n", 10}, ButtonFile{"0x5\n", 0},
                                         ButtonFile{"", 0}, ButtonFile{"\n", 0},
                                         ButtonFile{"pressed", 0}, ButtonFile{"-", 0},
                                         ButtonFile{"x3", 0}, ButtonFile{"7up", 7}));

TEST(ResetButtonFile, ReadsAsNotPressedWhenMissing)
{
    EXPECT_EQ(platform_getResetButton(), 0);
    EXPECT_EQ(files().openCount, 0U);
}

TEST(ResetButtonFile, ReadsAsNotPressedWhenItCannotBeOpened)
{
    files().content[buttonPath] = "3\n";
    files().openErrors[buttonPath] = EACCES;
    EXPECT_EQ(platform_getResetButton(), 0);
}

TEST(ResetButtonFile, IsReadAnewEachTime)
{
    files().content[buttonPath] = "1\n";
    EXPECT_EQ(platform_getResetButton(), 1);
    files().content[buttonPath] = "2\n";
    EXPECT_EQ(platform_getResetButton(), 2);
    files().content[buttonPath] = "";
    EXPECT_EQ(platform_getResetButton(), 0);
}

TEST(GponLink, IsUpInState5Only)
{
    for (const int state :
         {-2147483647, -251, -5, -1, 0, 1, 2, 3, 4, 6, 7, 261, 65541, -2147483643, 2147483647}) {
        vendor().gponState = state;
        EXPECT_EQ(platform_isGponUp(), 0) << state;
    }
    vendor().gponState = 5;
    EXPECT_EQ(platform_isGponUp(), 1);
}

TEST(PowerLevel, BelongsToTheHigherLevelOnAThreshold)
{
    const float infinity = std::numeric_limits<float>::infinity();
    struct {
        float threshold;
        int level;
    } const thresholds[] = {{-8.0F, 4}, {-11.0F, 3}, {-25.0F, 2}, {-28.0F, 1}};
    for (const auto &[threshold, level] : thresholds) {
        EXPECT_EQ(platform_getLaserRxPowerLevel(threshold), level) << threshold;
        EXPECT_EQ(platform_getLaserRxPowerLevel(std::nextafter(threshold, infinity)), level);
        EXPECT_EQ(platform_getLaserRxPowerLevel(std::nextafter(threshold, -infinity)), level - 1);
    }
}

TEST(PowerLevel, IsTheBandOfThePower)
{
    const float infinity = std::numeric_limits<float>::infinity();
    struct {
        float power;
        int level;
    } const powers[] = {
        {infinity, 4}, {3.0F, 4},    {0.0F, 4},    {-0.0F, 4},  {-7.9F, 4},
        {-8.01F, 3},   {-10.9F, 3},  {-11.01F, 2}, {-24.9F, 2}, {-25.01F, 1},
        {-27.9F, 1},   {-28.01F, 0}, {-40.0F, 0},  {-1e30F, 0}, {-infinity, 0},
    };
    for (const auto &[power, level] : powers)
        EXPECT_EQ(platform_getLaserRxPowerLevel(power), level) << power;
}

TEST(PowerLevel, IsTheLowestForNaN)
{
    EXPECT_EQ(platform_getLaserRxPowerLevel(std::numeric_limits<float>::quiet_NaN()), 0);
    EXPECT_EQ(platform_getLaserRxPowerLevel(-std::numeric_limits<float>::quiet_NaN()), 0);
}

constexpr uint8_t rawAddress[16] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};

void reportAddress(uint8_t add, const char *ifname, uint8_t family = AF_INET6,
                   const char *text = "2001:db8::1", uint8_t prefixlen = 64)
{
    platform_ipinfo_ip(add, ifname, family, rawAddress, text, prefixlen);
}

void reportRoute(uint8_t add, const char *ifname, const void *dst = nullptr,
                 uint8_t family = AF_INET6, const char *gwText = "fe80::1", uint8_t dst_len = 0)
{
    platform_ipinfo_route(add, ifname, family, dst, dst ? "::" : "", dst_len, rawAddress, gwText);
}

Lines published(const std::string &side, const std::string &address, int length)
{
    return {"tcapiSet Kelo_Ipv6Status " + side + "Address \"" + address + "\"",
            "tcapiSetUint32 Kelo_Ipv6Status " + side + "AddressLen " + std::to_string(length),
            "system omci set update_ip"};
}

Lines publishedGateway(const std::string &gateway)
{
    return {"tcapiSet Kelo_Ipv6Status wanGateway \"" + gateway + "\"", "system omci set update_ip"};
}

constexpr const char *wanNames[] = {"nas0", "nas0_0", "nas0_1", "nas01", "ppp", "ppp0", "ppp12"};
constexpr const char *otherNames[] = {"",     "b",   "br",   "br1",    "br0.1", "br00", "Br0",
                                      "eth0", "nas", "nas1", "nas1_0", "na",    "pp",   "pp0",
                                      "xppp", "lo",  "NAS0", "anas0",  "PPP0"};

constexpr uint8_t otherFamilies[] = {0, 1, AF_INET, 9, 11, 255};

TEST(AddressPublication, OfTheLanBridgeGoesToTheLanPair)
{
    reportAddress(1, "br0");
    EXPECT_EQ(journal().take(), published("lan", "2001:db8::1", 64));
}

TEST(AddressPublication, OfAWanInterfaceGoesToTheWanPair)
{
    for (const char *const name : wanNames) {
        reportAddress(1, name);
        EXPECT_EQ(journal().take(), published("wan", "2001:db8::1", 64)) << name;
    }
}

TEST(AddressPublication, IsEmptiedOnRemovalWhateverItIsToldOfTheAddress)
{
    reportAddress(0, "br0");
    EXPECT_EQ(journal().take(), published("lan", "", 0));
    reportAddress(0, "ppp0", AF_INET6, "2001:db8::2", 128);
    EXPECT_EQ(journal().take(), published("wan", "", 0));
}

TEST(AddressPublication, LastEventWins)
{
    reportAddress(1, "nas0_0", AF_INET6, "2001:db8::1", 64);
    reportAddress(1, "ppp0", AF_INET6, "2001:db8::2", 48);
    journal().take();
    reportAddress(0, "nas0_0", AF_INET6, "2001:db8::1", 64);
    EXPECT_EQ(journal().take(), published("wan", "", 0));
}

TEST(AddressPublication, TakesEveryNonzeroAsAdded)
{
    for (const int add : {2, 128, 255}) {
        reportAddress(static_cast<uint8_t>(add), "br0");
        EXPECT_EQ(journal().take(), published("lan", "2001:db8::1", 64));
    }
}

TEST(AddressPublication, TakesEveryPrefixLength)
{
    for (const int length : {0, 1, 127, 128, 255}) {
        reportAddress(1, "ppp0", AF_INET6, "::", static_cast<uint8_t>(length));
        EXPECT_EQ(journal().take(), published("wan", "::", length));
    }
}

TEST(AddressPublication, IgnoresOtherInterfaces)
{
    for (const char *const name : otherNames) {
        reportAddress(1, name);
        reportAddress(0, name);
        EXPECT_EQ(journal().take(), Lines{}) << name;
    }
}

TEST(AddressPublication, IgnoresOtherFamilies)
{
    for (const uint8_t family : otherFamilies) {
        for (const char *const name : {"br0", "nas0", "ppp0"}) {
            reportAddress(1, name, family);
            reportAddress(0, name, family);
        }
    }
    EXPECT_EQ(journal().take(), Lines{});
}

TEST(AddressPublication, GoesOnWhenTheStoreFails)
{
    vendor().storeResult = -1;
    reportAddress(1, "br0");
    EXPECT_EQ(journal().take(), published("lan", "2001:db8::1", 64));
}

TEST(GatewayPublication, OfAWanDefaultRouteGoesToTheStore)
{
    for (const char *const name : wanNames) {
        reportRoute(1, name);
        EXPECT_EQ(journal().take(), publishedGateway("fe80::1")) << name;
    }
}

TEST(GatewayPublication, IsEmptyForARouteWithoutGateway)
{
    platform_ipinfo_route(1, "ppp0", AF_INET6, nullptr, "", 0, nullptr, "");
    EXPECT_EQ(journal().take(), publishedGateway(""));
}

TEST(GatewayPublication, IsEmptiedByARemovalWithoutDestination)
{
    reportRoute(0, "ppp0");
    EXPECT_EQ(journal().take(), publishedGateway(""));
}

TEST(GatewayPublication, GoesByTheMissingDestinationAndNotByItsLength)
{
    reportRoute(1, "ppp0", nullptr, AF_INET6, "fe80::1", 64);
    EXPECT_EQ(journal().take(), publishedGateway("fe80::1"));
}

TEST(GatewayPublication, IgnoresARouteWithDestination)
{
    const uint8_t zero[16] = {};
    for (const char *const name : wanNames) {
        reportRoute(1, name, zero); // ::/0 given explicitly
        reportRoute(0, name, zero); // a removed default route: its gateway stays published
        reportRoute(1, name, rawAddress, AF_INET6, "fe80::1", 64);
    }
    EXPECT_EQ(journal().take(), Lines{});
}

TEST(GatewayPublication, TakesEveryNonzeroAsAdded)
{
    reportRoute(255, "nas0");
    EXPECT_EQ(journal().take(), publishedGateway("fe80::1"));
}

TEST(GatewayPublication, IgnoresTheLanBridgeAndOtherInterfaces)
{
    reportRoute(1, "br0");
    for (const char *const name : otherNames)
        reportRoute(1, name);
    EXPECT_EQ(journal().take(), Lines{});
}

TEST(GatewayPublication, IgnoresOtherFamilies)
{
    for (const uint8_t family : otherFamilies)
        reportRoute(1, "ppp0", nullptr, family);
    EXPECT_EQ(journal().take(), Lines{});
}

} // namespace

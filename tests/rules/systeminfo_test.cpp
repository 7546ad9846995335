// The names of systems, editions, chassis and levels, and what this machine
// says it is.

#include "core/systeminfo.h"

#include <gtest/gtest.h>

using namespace Brevi;

TEST(SystemInfo, EveryNumberHasItsName)
{
    const std::vector<std::pair<unsigned, const char*>> windows = {
        {1, "Win32s"},          {2, "Windows 95"},     {3, "Windows 98"},  {4, "Windows ME"},
        {16, "Windows NT"},     {32, "Windown 2000"},  {48, "Windows XP"}, {64, "Windows 2003"},
        {128, "Windows Vista"}, {240, "Windows 2008"}, {256, "Windows 7"}};
    for (const auto& [version, name] : windows)
        EXPECT_EQ(SystemInfo::osName(1, version), name) << version;
    for (unsigned version : {0u, 15u, 255u, 257u})
        EXPECT_EQ(SystemInfo::osName(1, version), "Windows (unknown version)") << version;
    EXPECT_EQ(SystemInfo::osName(2, 48), "Mac");
    EXPECT_EQ(SystemInfo::osName(3, 0x060100), "Linux");
    EXPECT_EQ(SystemInfo::osName(0, 1), "Unknown OS");
    EXPECT_EQ(SystemInfo::osName(4, 1), "Unknown OS");

    EXPECT_EQ(SystemInfo::editionName(1, 0, 1), "Unlicensed");
    EXPECT_EQ(SystemInfo::editionName(1, 256, 12), "Blade (Web Edition)");
    EXPECT_EQ(SystemInfo::editionName(1, 999, 14), "Ultimate");
    EXPECT_EQ(SystemInfo::editionName(1, 256, 0), "");
    EXPECT_EQ(SystemInfo::editionName(1, 256, 15), "");
    EXPECT_EQ(SystemInfo::editionName(3, 256, 5), "");

    EXPECT_EQ(SystemInfo::chassisName(3), "Laptop");
    EXPECT_EQ(SystemInfo::chassisName(6), "Virtual");
    EXPECT_EQ(SystemInfo::chassisName(0), "Server/Workstation");
    EXPECT_EQ(SystemInfo::systemLevelName(1), "Workstation");
    EXPECT_EQ(SystemInfo::systemLevelName(2), "Server");
    EXPECT_EQ(SystemInfo::systemLevelName(3), "Unknown");
}

TEST(SystemInfo, ThisMachineIsLinuxWithItsKernelAndDistribution)
{
    EXPECT_EQ(SystemInfo::osType(), 3u);
    EXPECT_EQ(SystemInfo::osEdition(), 0u);
    EXPECT_EQ(SystemInfo::osVersion(), SystemInfo::linuxVersion(SystemInfo::kernelRelease()));
    EXPECT_GE(SystemInfo::osVersion(), 0x020600u) << SystemInfo::kernelRelease().toStdString();
    EXPECT_FALSE(SystemInfo::distributionName().isEmpty());
    EXPECT_TRUE(SystemInfo::osName().startsWith("Linux (" + SystemInfo::distributionName() + ", kernel "))
        << SystemInfo::osName().toStdString();

    EXPECT_EQ(SystemInfo::linuxVersion("6.1.0-18-amd64"), 0x060100u);
    EXPECT_EQ(SystemInfo::linuxVersion("5.15.300"), 0x050FFFu);
    EXPECT_EQ(SystemInfo::linuxVersion("4.19"), 0x041300u);
    EXPECT_EQ(SystemInfo::linuxVersion("unknown"), 0u);
}

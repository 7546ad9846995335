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

TEST(SystemInfo, AWindowsVersionRecordGivesItsVersionAndFirstEdition)
{
    struct Row {
        unsigned platform, major, minor, product, version, edition;
    };
    const std::vector<Row> rows = {
        {2, 6, 0, 3, 240, 8}, {2, 6, 1, 2, 240, 8}, {2, 6, 1, 1, 256, 5}, {2, 6, 0, 1, 128, 5}, {2, 5, 2, 1, 48, 6},
        {2, 5, 2, 3, 64, 8},  {2, 5, 1, 3, 48, 5},  {2, 5, 0, 1, 32, 0},  {2, 4, 7, 1, 16, 2},  {1, 4, 0, 0, 2, 0},
        {1, 4, 10, 0, 3, 0},  {1, 4, 90, 0, 4, 0},  {0, 3, 1, 0, 1, 0},   {2, 6, 2, 1, 0, 0},   {2, 3, 51, 1, 0, 0},
        {1, 4, 50, 0, 0, 0},  {3, 6, 1, 1, 0, 0}};
    for (const Row& row : rows) {
        const SystemInfo::WindowsRecord record =
            SystemInfo::windowsVersion(row.platform, row.major, row.minor, row.product);
        EXPECT_EQ(record.version, row.version) << row.platform << " " << row.major << "." << row.minor;
        EXPECT_EQ(record.firstEdition, row.edition) << row.platform << " " << row.major << "." << row.minor;
    }
}

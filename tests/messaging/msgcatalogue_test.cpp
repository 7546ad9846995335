// The vocabulary compiles into one header, and the texts that read oddly on the
// wire read exactly so.

#include "messaging/msgcatalogue.h"

#include <gtest/gtest.h>

using namespace Brevi::Catalogue;

TEST(MsgCatalogue, OddTextsStayAsTheyRead)
{
    EXPECT_EQ(SharedMemoryWindowSizeKey, "Shared Memory  Window Size");
    EXPECT_NE(SharedMemoryWindowSizeKey, "Shared Memory Window Size");
    EXPECT_EQ(LogKey::DataSizePrfix, "DataSizePrfix");
    EXPECT_EQ(LogDaemonChangingFilter, "LogDaemonChanging filter");
    EXPECT_EQ(HubMpxProbePost::DestinationDetails, "Destination Details");
    EXPECT_EQ(NodeKey::FileName, "filename");
}

TEST(MsgCatalogue, AFreezeOfTheTraceWriterIsAnsweredUnderItsOwnName)
{
    EXPECT_EQ(HubWriterFreezeRequest::Message, "HubWriterFreezeRequest");
    EXPECT_EQ(HubWriterFreezeRequest::Success, "Success");
    EXPECT_EQ(HubMgrCreateProcessReply::StatusDoesNotExist, "Does Not Exist");
    EXPECT_EQ(HubMgrAttachRequest::TypeMonitored, "Monitored");
}

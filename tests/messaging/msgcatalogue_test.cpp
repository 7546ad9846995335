// The texts that read oddly on the wire must read exactly so: the far side
// matches them byte for byte.

#include "messaging/msgcatalogue.h"

#include <gtest/gtest.h>

using namespace Brevi::Catalogue;

TEST(MsgCatalogue, OddTextsStayAsTheyRead)
{
    EXPECT_EQ(SharedMemoryWindowSizeKey, "Shared Memory  Window Size");
    EXPECT_EQ(LogKey::DataSizePrfix, "DataSizePrfix");
    EXPECT_EQ(LogDaemonChangingFilter, "LogDaemonChanging filter");
    EXPECT_EQ(NodeKey::FileName, "filename");
    EXPECT_EQ(HubWriterFreezeRequest::Message, "HubWriterFreezeRequest");
    EXPECT_EQ(HubMgrCreateProcessReply::StatusDoesNotExist, "Does Not Exist");
}

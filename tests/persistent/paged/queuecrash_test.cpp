// A sender process and a receiver process on one queue, killed with SIGKILL at
// random points and started again: every record sent comes, in order, and a
// record comes twice only when its receiver died before its release was
// confirmed. BREVI_QUEUE_CRASH_ROUNDS sets the number of kills (200 by
// default: some twenty seconds, a minute under the sanitizer).

#include "persistenttest.h"
#include "spoolcrash.h"

#include <cstdlib>

namespace {

class QueueCrashTest : public PersistentTest::Fixture
{};

} // namespace

TEST_F(QueueCrashTest, KilledSendersAndReceiversLoseAndRepeatNothingReleased)
{
    const char* setting = std::getenv("BREVI_QUEUE_CRASH_ROUNDS");
    BreviTest::crashRounds(QUEUE_PEER, path("queue"), setting ? std::atoi(setting) : 200, 515);
}

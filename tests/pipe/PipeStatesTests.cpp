#include "pipe/PipeStates.h"

#include <gtest/gtest.h>

using namespace pipestates;

TEST(PipeStates, TransitionTable)
{
    const bool allowed[6][6] = {
        // to: Wait  Conn'ing Conn'd Disc'ing Disc'd Error
        {false, true, true, false, false, false},  // WaitConnection
        {false, false, true, true, false, true},   // Connecting
        {false, false, false, true, false, false}, // Connected
        {false, false, false, false, true, false}, // Disconnecting
        {false, true, true, false, false, false},  // Disconnected
        {false, false, false, false, false, false} // ConnectionError is final
    };
    for (uint32_t from = 0; from < 6; ++from)
        for (uint32_t to = 0; to < 6; ++to)
            EXPECT_EQ(allowed[from][to], IsTransitionAllowed(from, to)) << from << " -> " << to;
    EXPECT_FALSE(IsTransitionAllowed(7, ePipeConnectionState_Connected));
}

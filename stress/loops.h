#pragma once

#include "tests/support/process_ends.h"

// The loops of the stress program. Each runs in a process of its own and finds the first fault;
// `rounds.count` is the number of rounds, rows, operations or seconds.
namespace marbleway::stress {

using tests::Fault;
using tests::Rounds;

Fault recordUnderLoad(Rounds& rounds);
Fault exitInTransfer(Rounds& rounds);
Fault forkRecording(Rounds& rounds);
Fault crashInEveryWay(Rounds& rounds);
Fault recordInTwoProcesses(Rounds& rounds);
Fault writeSettings(Rounds& rounds);
Fault fillDisk(Rounds& rounds);
Fault operateAtRandom(Rounds& rounds);
Fault soak(Rounds& rounds);

}  // namespace marbleway::stress

#pragma once

#include <string>

#include "ChildProcess.h"

// How much each attack sends; --quick makes them tiny.
struct AttackSizes {
    int helloClaimsPerRound = 200;
    int unknownEndpoints = 500000;
    int recordsPerTransaction = 50000;
    int floodProcesses = 4;
    int floodConnectionsEach = 300;
    int largeBodies = 14;
    int descriptorOneWays = 60;
    int descriptorsEach = 64;

    static AttackSizes quick() {
        AttackSizes sizes;
        sizes.helloClaimsPerRound = 20;
        sizes.unknownEndpoints = 4000;
        sizes.recordsPerTransaction = 2000;
        sizes.floodProcesses = 2;
        sizes.floodConnectionsEach = 40;
        sizes.largeBodies = 2;
        sizes.descriptorOneWays = 4;
        sizes.descriptorsEach = 8;
        return sizes;
    }
};

// Hostile processes of the attacked process's user. Each finds the object
// named `target` as any client would, sends a value on `channel` once its
// attack is under way, then keeps at it or holds what it took until the
// channel closes.
namespace hostile {

// Hellos claiming an endpoint whose listener never accepts and whose backlog
// is full, round after round.
int helloFlood(tvtest::Channel& channel, const std::string& target, const AttackSizes& sizes);
// Transactions whose object records name endpoints nobody owns.
int unknownEndpoints(tvtest::Channel& channel, const std::string& target, const AttackSizes& sizes);
// Connections that never say hello, held open.
int connectionFlood(tvtest::Channel& channel, const std::string& target, const AttackSizes& sizes);
// Calls with 16 MiB bodies in memfds to an object that blocks.
int largeBodies(tvtest::Channel& channel, const std::string& target, const AttackSizes& sizes);
// One-ways carrying descriptors, queued behind a one-way that blocks.
int descriptorOneWays(tvtest::Channel& channel, const std::string& target,
                      const AttackSizes& sizes);

}  // namespace hostile

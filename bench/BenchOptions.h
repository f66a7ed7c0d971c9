#pragma once

// How much work each measurement does. The defaults keep a full run under a
// minute and a half on two CPUs; --quick is a smoke run that only checks that all works.
struct BenchOptions {
    int roundTrips = 20000;
    int oneWayMessages = 200000;
    int parallelClients = 4;
    int parallelCallsEach = 20000;
    int deathRounds = 20;
    int manyClients = 200;
    int freshBinds = 20;
    int pacedCalls = 1000;
    int idleSeconds = 10;
    // Calls carrying 64 KiB; those carrying 1 MiB make a fifth as many.
    int bodyCalls = 4000;
    // Each comparison is measured this many times; the round with the median
    // ratio is shown.
    int rounds = 3;

    static BenchOptions quick() {
        BenchOptions options;
        options.roundTrips = 200;
        options.oneWayMessages = 2000;
        options.parallelCallsEach = 200;
        options.deathRounds = 3;
        options.manyClients = 20;
        options.freshBinds = 3;
        options.pacedCalls = 50;
        options.idleSeconds = 1;
        options.bodyCalls = 50;
        options.rounds = 1;
        return options;
    }
};

// One-way senders wait for the receiver after each batch, so that neither
// side's backlog grows without bound; raw sockets are measured the same way.
constexpr int kOneWayBatch = 256;
// Every payload of the comparisons is this many bytes.
constexpr int kPayloadSize = 16;

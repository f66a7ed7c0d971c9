// A greeter client: greeter_client NAME [ROUNDS | forever]. Binds to the
// greeter and its translator and calls them for ROUNDS rounds (default 3),
// or until killed; exits 0 when everything was answered.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "GreeterClient.h"
#include "Story.h"

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s NAME [ROUNDS | forever]\n", argv[0]);
        return 2;
    }
    story::setSpeaker(argv[1]);
    int rounds = 3;
    if (argc > 2) rounds = strcmp(argv[2], "forever") == 0 ? -1 : atoi(argv[2]);
    GreeterClient client(argv[1]);
    if (!client.bind()) return 1;
    return client.run(rounds) ? 0 : 1;
}

#include <dirent.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Commands.h"
#include "Table.h"
#include "coupler/binder/monitor/JsonText.h"
#include "wire/SocketDirectory.h"

namespace tavrin_cli {
namespace {

constexpr const char kContextPrefix[] = "ctx-";

// The pid of the service manager listening on `path`, or -1 when none
// listens there (a socket file left behind) or it is not ours to trust.
int listenerPid(const std::string& path) {
    sockaddr_un address{};
    socklen_t length = 0;
    if (!android::tvbinder::socketAddress(path, &address, &length)) return -1;
    const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) return -1;
    int pid = -1;
    ucred credentials{};
    socklen_t size = sizeof credentials;
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
        getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) == 0 &&
        (credentials.uid == geteuid() || credentials.uid == 0)) {
        pid = credentials.pid;
    }
    close(fd);
    return pid;
}

}  // namespace

// The contexts are the service managers' socket files in the user's socket
// directory; a connection that is closed at once costs the daemon nothing.
int listContexts(const CommandLine& line) {
    const std::string directory = android::tvbinder::SocketDirectory::path();
    std::vector<std::pair<std::string, int>> contexts;
    if (DIR* listing = directory.empty() ? nullptr : opendir(directory.c_str())) {
        while (dirent* entry = readdir(listing)) {
            const std::string file = entry->d_name;
            if (file.rfind(kContextPrefix, 0) != 0) continue;
            const int pid = listenerPid(directory + "/" + file);
            if (pid > 0) contexts.emplace_back(file.substr(sizeof kContextPrefix - 1), pid);
        }
        closedir(listing);
    }
    std::sort(contexts.begin(), contexts.end());
    if (line.json) {
        printf("[");
        for (size_t i = 0; i < contexts.size(); ++i) {
            printf("%s{\"name\":%s,\"pid\":%d}", i > 0 ? ",\n " : "",
                   tavrin_binder::jsonQuoted(contexts[i].first).c_str(), contexts[i].second);
        }
        printf("]\n");
        return 0;
    }
    Table table({"CONTEXT", "PID"});
    for (const auto& [name, pid] : contexts) table.add({name, std::to_string(pid)});
    table.print(stdout);
    return 0;
}

}  // namespace tavrin_cli

#include "Hostiles.h"

#include <binder/IServiceManager.h>
#include <binder/ProcessState.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <random>
#include <thread>
#include <vector>

#include "AttackService.h"
#include "ChildProcess.h"
#include "RawPeer.h"
#include "wire/Connection.h"
#include "wire/SocketDirectory.h"

using android::IBinder;
using android::sp;
using android::tvbinder::kHelloLink;
using android::tvbinder::kLayoutBodyInMemfd;
using android::tvbinder::kMaxTransactionSize;
using tvraw::Bytes;
using tvraw::endpointOf;
using tvraw::FlatObject;
using tvraw::FrameHeader;
using tvraw::ownEndpoint;
using tvraw::RawConnection;
using tvraw::transactionTo;
using tvtest::Channel;

namespace hostile {
namespace {

sp<IBinder> joinAndFind(const std::string& name) {
    android::ProcessState::self()->startThreadPool();
    return android::defaultServiceManager()->getService(android::String16(name.c_str()));
}

bool stopAsked(const Channel& channel) {
    return channel.readable(std::chrono::milliseconds(0));
}

int holdUntilStopped(const Channel& channel) {
    channel.readable(std::chrono::minutes(10));
    return 0;
}

// A connection to `endpoint` that introduced itself as this process.
std::unique_ptr<RawConnection> introducedTo(uint64_t endpoint, uint32_t flags = 0) {
    auto connection = std::make_unique<RawConnection>(endpoint);
    connection->hello(ownEndpoint(), flags);
    return connection;
}

}  // namespace

int helloFlood(Channel& channel, const std::string& target, const AttackSizes& sizes) {
    const sp<IBinder> service = joinAndFind(target);
    if (service == nullptr) return 1;
    tvraw::FullBacklog unreachable;
    if (!unreachable.full) return 1;
    bool started = false;
    while (!stopAsked(channel)) {
        std::vector<std::unique_ptr<RawConnection>> round;
        for (int i = 0; i < sizes.helloClaimsPerRound; ++i) {
            round.push_back(std::make_unique<RawConnection>(endpointOf(service)));
            round.back()->hello(unreachable.endpoint);
        }
        if (!started) started = channel.sendValue(sizes.helloClaimsPerRound);
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return 0;
}

int unknownEndpoints(Channel& channel, const std::string& target, const AttackSizes& sizes) {
    const sp<IBinder> service = joinAndFind(target);
    if (service == nullptr) return 1;
    std::mt19937_64 random(std::random_device{}());
    std::vector<std::unique_ptr<RawConnection>> senders;
    for (int sent = 0; sent < sizes.unknownEndpoints; sent += sizes.recordsPerTransaction) {
        std::vector<FlatObject> records(static_cast<size_t>(sizes.recordsPerTransaction));
        for (FlatObject& record : records) {
            record.type = FlatObject::kTypeBinder;
            record.endpoint = random();
            record.tokenHi = random();
            record.tokenLo = random();
        }
        FrameHeader header = transactionTo(service, AttackService::ECHO);
        header.layout = kLayoutBodyInMemfd;
        const Bytes body = tvraw::carrying(&header, records);
        const int memfd = tvraw::sealedMemfd(body, body.size());
        senders.push_back(introducedTo(endpointOf(service)));
        senders.back()->sendFrame(header, {}, {memfd});
        close(memfd);
    }
    channel.sendValue(sizes.unknownEndpoints);
    return holdUntilStopped(channel);
}

int connectionFlood(Channel& channel, const std::string& target, const AttackSizes& sizes) {
    const sp<IBinder> service = joinAndFind(target);
    if (service == nullptr) return 1;
    sockaddr_un address;
    socklen_t length;
    if (!android::tvbinder::socketAddress(android::tvbinder::endpointAddress(endpointOf(service)),
                                          &address, &length)) {
        return 1;
    }
    std::vector<int> connections;
    for (int i = 0; i < sizes.floodConnectionsEach; ++i) {
        int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&address), length) != 0) {
            close(fd);
            break;
        }
        connections.push_back(fd);
    }
    channel.sendValue(static_cast<int64_t>(connections.size()));
    return holdUntilStopped(channel);
}

int largeBodies(Channel& channel, const std::string& target, const AttackSizes& sizes) {
    const sp<IBinder> service = joinAndFind(target);
    if (service == nullptr) return 1;
    const int body = tvraw::sealedMemfd({}, kMaxTransactionSize);
    FrameHeader header = transactionTo(service, AttackService::BLOCK);
    header.layout = kLayoutBodyInMemfd;
    header.dataSize = kMaxTransactionSize;
    std::vector<std::unique_ptr<RawConnection>> calls;
    for (int i = 0; i < sizes.largeBodies; ++i) {
        calls.push_back(introducedTo(endpointOf(service)));
        calls.back()->sendFrame(header, {}, {body});
    }
    channel.sendValue(sizes.largeBodies);
    return holdUntilStopped(channel);
}

int descriptorOneWays(Channel& channel, const std::string& target, const AttackSizes& sizes) {
    const sp<IBinder> service = joinAndFind(target);
    if (service == nullptr) return 1;
    auto link = introducedTo(endpointOf(service), kHelloLink);
    FrameHeader block = transactionTo(service, AttackService::BLOCK);
    block.flags = IBinder::FLAG_ONEWAY;
    link->sendFrame(block);
    FlatObject fdRecord{};
    fdRecord.type = FlatObject::kTypeFd;
    const std::vector<int> fds(static_cast<size_t>(sizes.descriptorsEach), STDERR_FILENO);
    FrameHeader call = transactionTo(service, AttackService::COUNT);
    call.flags = IBinder::FLAG_ONEWAY;
    Bytes body = tvraw::carrying(&call, std::vector<FlatObject>(fds.size(), fdRecord), Bytes(4));
    for (int32_t i = 0; i < sizes.descriptorOneWays; ++i) {
        memcpy(body.data(), &i, sizeof(i));
        link->sendFrame(call, body, fds);
    }
    channel.sendValue(sizes.descriptorOneWays);
    return holdUntilStopped(channel);
}

}  // namespace hostile

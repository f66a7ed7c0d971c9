#pragma once

#include <stdint.h>

#include <string>

#include "calls/CallReception.h"
#include "calls/Caller.h"
#include "calls/ChainRegistry.h"
#include "calls/RequestServer.h"
#include "oneways/LinkIntake.h"
#include "oneways/LinkReader.h"
#include "oneways/LinkStallGuard.h"
#include "oneways/OneWayScheduler.h"
#include "peers/AcceptedConnections.h"
#include "peers/Introductions.h"
#include "peers/PeerTable.h"
#include "peers/RingTrimmer.h"
#include "references/ExportTable.h"
#include "references/Obituaries.h"
#include "references/ObjectCodec.h"
#include "references/ProxyTable.h"
#include "runtime/Acceptor.h"
#include "runtime/ContextManager.h"
#include "threads/ThreadPool.h"
#include "wire/Listener.h"
#include "wire/PeerAccounts.h"

namespace android {
namespace tvbinder {

// The transport of one process: makes its parts, each given the few others
// it works with, and starts them (the endpoint's listener, the pool's epoll
// set, the stall guard's and the ring trimmer's timers). It brokers nothing:
// the platform's classes (ProcessState, IPCThreadState, BBinder, BpBinder,
// Parcel) reach the part they need through it. Made with the first
// ProcessState; never destroyed, because pool threads use it until the
// process ends (a child made by fork() abandons its parent's and makes its
// own).
class Runtime {
  public:
    // The process's runtime, or null before the first ProcessState.
    static Runtime* current();
    // Makes the runtime of this process (ProcessState does, once).
    static Runtime& create();
    // In a child made by fork(): the parent's runtime is no longer current.
    static void abandonInChild();

    uint64_t endpoint() const { return mEndpoint; }

    ThreadPool& pool() { return mPool; }
    ExportTable& exports() { return mExports; }
    ProxyTable& proxies() { return mProxies; }
    Obituaries& obituaries() { return mObituaries; }
    ObjectCodec& objects() { return mObjects; }
    OneWayScheduler& oneWays() { return mOneWays; }
    Caller& caller() { return mCaller; }
    ContextManager& contextManager() { return mContextManager; }

    // At a clean exit: this process's socket files go.
    void removeSocketFiles();

  private:
    Runtime();
    [[nodiscard]] status_t start();

    // In the order they are made: each part only needs those above it.
    const uint64_t mEndpoint;
    PeerAccounts mAccounts;
    ThreadPool mPool;
    ExportTable mExports;
    ProxyTable mProxies;
    Obituaries mObituaries{mExports, mProxies, mPool};
    RingTrimmer mRingTrimmer{mPool};
    PeerTable mPeers{mPool, mObituaries, mRingTrimmer, mEndpoint};
    AcceptedConnections mAccepted{mPool};
    ObjectCodec mObjects{mExports, mProxies, mPeers, mEndpoint};
    ChainRegistry mChains;
    RequestServer mServer{mObjects, mExports, mPeers, mEndpoint};
    Caller mCaller{mObjects, mServer, mChains, mAccepted, mPool};
    CallReception mCallReception{mServer, mCaller, mChains, mAccepted, mPool};
    OneWayScheduler mOneWays{mPool};
    LinkIntake mLinkIntake{mObjects, mExports, mOneWays};
    LinkStallGuard mStallGuard{mPool, mAccepted};
    LinkReader mLinkReader{mLinkIntake, mStallGuard, mAccepted, mPool};
    Introductions mIntroductions{mPeers, mAccepted, mRingTrimmer, mEndpoint};
    Acceptor mAcceptor{mPool, mAccounts, mAccepted, {mIntroductions, mCallReception, mLinkReader}};
    Listener mListener{false};
    ContextManager mContextManager;
};

}  // namespace tvbinder
}  // namespace android

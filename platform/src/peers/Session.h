#pragma once

namespace android {
namespace tvbinder {

class Connection;
class Peer;

// A connection with the peer process at its other end: what code that reads
// or answers frames on a connection needs to know of it. Both are kept alive
// by whoever lent the session (the AcceptedConnection, or the calling thread
// that holds its call connection and the owner's Peer).
struct Session {
    Connection& connection;
    Peer& peer;
};

}  // namespace tvbinder
}  // namespace android

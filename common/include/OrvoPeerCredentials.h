#ifndef ORVO_PEER_CREDENTIALS_H
#define ORVO_PEER_CREDENTIALS_H

#include "OrvoExport.h"

// Who is at the other end of a local stream socket, and which uid the
// daemon runs as. The callback sink accepts pushes only from that uid or root.
namespace OrvoNet {

struct OrvoPeerCredentials {
    long m_nPid = -1;  // -1 when the transport cannot tell (TCP)
    long m_nUid = -1;
};

// Unix sockets: SO_PEERCRED. Loopback TCP: the uid that owns the peer's
// socket, asked of the kernel through NETLINK_SOCK_DIAG. False when it
// cannot be learnt.
ORVO_NET_API bool peerCredentials(int fd, OrvoPeerCredentials& credentials);
// The same for a socket known to be a Unix one: no call to learn its family.
ORVO_NET_API bool unixPeerCredentials(int fd, OrvoPeerCredentials& credentials);

// Whether a listener of uid nUid may answer as the daemon: root, the calling
// user, or the uid KSINTF_DAEMON_UID names (a daemon run under its own
// account). Anyone else could have bound the daemon's name while it was down.
ORVO_NET_API bool isTrustedDaemonUid(long nUid);

// The daemon's uid as seen on the library's own request connections (every
// stream connection notes it when it opens, once it proved trusted); -1
// until one was opened.
ORVO_NET_API long daemonUid();
ORVO_NET_API void noteDaemonUid(long nUid);

}  // namespace OrvoNet

#endif

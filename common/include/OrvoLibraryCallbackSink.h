#ifndef ORVO_LIBRARY_CALLBACK_SINK_H
#define ORVO_LIBRARY_CALLBACK_SINK_H

#include <atomic>
#include <mutex>

#include "OrvoCallbackContainer.h"
#include "OrvoThread.h"

namespace OrvoNet {

// The process's receiver of pushed callback frames. Its listener thread
// starts at the first call of getCallbackAddress(), accepts the daemon's push
// connections and dispatches each frame (tagged int id, tagged int length,
// raw payload) to the container's callback of that id. Unknown ids, callbacks
// that throw and malformed frames never stop it; destruction stops and joins it.
// Only connections from the daemon's uid (see OrvoPeerCredentials.h) or root
// are kept; any other is closed at once and logged.
// Environment: OCNET_CALLBACK_TYPE=socket listens on loopback TCP instead of
// an abstract Unix name.
class ORVO_NET_API OrvoLibraryCallbackSink : public OrvoSupport::OrvoThread, public OrvoSupport::OrvoObjectBase {
public:
    explicit OrvoLibraryCallbackSink(const OrvoString& sSinkName);
    ~OrvoLibraryCallbackSink() override;

    OrvoCallbackContainer& getCallbackContainer() { return m_container; }
    // "pipe:<name>" or "socket:127.0.0.1:<port>"; starts the listener on
    // first use and throws OrvoException when it cannot listen.
    OrvoString getCallbackAddress();
    // Stops and joins the listener (also done by the destructor).
    void stop();
    // Frames dispatched so far (diagnostics and tests).
    long framesDispatched() const { return m_nDispatched.load(); }

protected:
    void run() override;

private:
    void startListener();
    bool isTrustedPeer(int fd);
    void dispatch(const char* pPayload, std::size_t nSize, int nId);

    OrvoCallbackContainer m_container;
    std::mutex m_startMutex;
    OrvoString m_sAddress;
    int m_listenFd;
    int m_wakeFd;
    std::atomic<bool> m_bStopping;
    std::atomic<long> m_nDispatched;
};

}  // namespace OrvoNet

#endif

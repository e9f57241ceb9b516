#ifndef ORVO_THREAD_H
#define ORVO_THREAD_H

#include <atomic>
#include <thread>

#include "OrvoString.h"

namespace OrvoSupport {

// A named thread whose body is run(). start() launches it once; join() waits
// for it. A derived class must join before its own members go away.
class ORVO_SUPPORT_API OrvoThread {
public:
    explicit OrvoThread(const OrvoString& sName);
    virtual ~OrvoThread();

    bool start();
    void join();
    bool isRunning() const { return m_bRunning.load(); }
    const OrvoString& getName() const { return m_sName; }

protected:
    virtual void run() = 0;

private:
    OrvoThread(const OrvoThread&) = delete;
    OrvoThread& operator=(const OrvoThread&) = delete;
    OrvoString m_sName;
    std::thread m_thread;
    std::atomic<bool> m_bRunning;
};

}  // namespace OrvoSupport

#endif

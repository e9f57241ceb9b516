// Named thread running a virtual body.

#include "OrvoThread.h"

#include <pthread.h>

#include <exception>

#include "OrvoLogging.h"

namespace OrvoSupport {

OrvoThread::OrvoThread(const OrvoString& sName) : m_sName(sName), m_bRunning(false) {}

OrvoThread::~OrvoThread() {
    // Joining here only saves the process from std::terminate; a derived
    // class whose run() uses its own members has to join in its destructor.
    join();
}

bool OrvoThread::start() {
    if (m_thread.joinable()) return false;
    m_bRunning.store(true);
    try {
        m_thread = std::thread([this] {
            // The kernel keeps 15 characters of a thread name.
            pthread_setname_np(pthread_self(), m_sName.substr(0, 15).c_str());
            try {
                run();
            } catch (const std::exception& e) {
                // A thread body has nobody to report to: log and end the thread.
                ORVO_LOG(1, "OrvoThread::run: thread " << m_sName << " ended by exception: " << e.what());
            }
            m_bRunning.store(false);
        });
    } catch (...) {
        m_bRunning.store(false);
        throw;
    }
    return true;
}

void OrvoThread::join() {
    if (!m_thread.joinable()) return;
    if (m_thread.get_id() == std::this_thread::get_id()) {
        // Destroyed from its own body: joining itself would deadlock.
        m_thread.detach();
        return;
    }
    m_thread.join();
}

}  // namespace OrvoSupport

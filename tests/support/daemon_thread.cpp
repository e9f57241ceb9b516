#include "daemon_thread.h"

namespace ksd {

DaemonThread::DaemonThread(DaemonOptions options)
    : daemon_(std::make_unique<Daemon>(std::move(options))), thread_([this] { daemon_->run(); }) {}

DaemonThread::~DaemonThread() {
    daemon_->stop();
    thread_.join();
    daemon_.reset();
}

}  // namespace ksd

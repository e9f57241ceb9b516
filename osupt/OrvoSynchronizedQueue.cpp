// Non-template base of the synchronized queue: owns the queue lock.

#include "OrvoSynchronizedQueue.h"

namespace OrvoSupport {

OrvoBaseSynchronizedQueue::OrvoBaseSynchronizedQueue() = default;

OrvoBaseSynchronizedQueue::~OrvoBaseSynchronizedQueue() = default;

}  // namespace OrvoSupport

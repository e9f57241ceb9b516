#ifndef KSD_SERVICES_SCHEDULER_EXEC_STAGE_H
#define KSD_SERVICES_SCHEDULER_EXEC_STAGE_H

// Which step of starting a program failed, as the starting child and
// ksd-exec report it to the daemon (with errno) through the report pipe.

namespace ksd::sched {

enum ExecStage : int { kCredentials = 1, kChdir, kLogFile, kLogNotRegular, kExec, kSession, kLimits, kHelper };

}  // namespace ksd::sched

#endif

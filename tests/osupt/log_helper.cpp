// Child process for the logger environment tests: logs a fixed set of records
// at several levels, from a second thread and from a static destructor.
#include <thread>

#include "OrvoLogging.h"

static struct LogsWhenDestroyed {
    ~LogsWhenDestroyed() { ORVO_LOG(1, "from static destructor"); }
} g_logsAtExit;

int main() {
    ORVO_LOG(1, "level one " << 1);
    ORVO_LOG(2, "level two " << true);
    ORVO_LOG(9, "level nine");
    std::thread([] { ORVO_LOG(1, "from thread"); }).join();
}

#ifndef ORVO_MODULE_DATA_H
#define ORVO_MODULE_DATA_H

#include "OrvoExport.h"

namespace OrvoSupport {

// Start/stop bookkeeping of one loadable module. Every instance registers
// itself; entry()/exit() attach and detach all registered modules, counting
// so that only the first attach and the last detach do work.
class ORVO_SUPPORT_API ModuleData {
public:
    explicit ModuleData(bool bAutoInit);
    virtual ~ModuleData();

    virtual void attach();
    virtual void detach();

    // For every registered module: attach when its count is 0, then count up.
    static void entry();
    // For every registered module with a count above 0: count down, detach at 0.
    static void exit();

    bool isAutoInit() const { return m_bAutoInit; }
    int attachCount() const { return m_nAttachCount; }

protected:
    // A derived module calls these from its own constructor and destructor
    // (virtual dispatch does not reach it from the base's). They do nothing
    // unless the auto-initialise flag is set.
    void autoAttach();
    void autoDetach();

private:
    ModuleData(const ModuleData&) = delete;
    ModuleData& operator=(const ModuleData&) = delete;
    void countedAttach();
    void countedDetach();

    bool m_bAutoInit;
    int m_nAttachCount;
};

}  // namespace OrvoSupport

#endif

// Registry of loadable modules and their counted attach/detach.

#include "ModuleData.h"

#include <algorithm>
#include <mutex>
#include <vector>

#include "OrvoLogging.h"

namespace OrvoSupport {

namespace {

// Leaked on purpose: modules of other libraries unregister from their static
// destructors, which may run after this library's would have.
struct Registry {
    // Recursive: attach()/detach() may load or unload a library and so
    // construct or destroy a module on the visiting thread.
    std::recursive_mutex mutex;
    std::vector<ModuleData*> modules;
};

Registry& registry() {
    static Registry* pRegistry = new Registry;
    return *pRegistry;
}

bool isRegistered(const Registry& reg, const ModuleData* pModule) {
    return std::find(reg.modules.begin(), reg.modules.end(), pModule) != reg.modules.end();
}

}  // namespace

ModuleData::ModuleData(bool bAutoInit) : m_bAutoInit(bAutoInit), m_nAttachCount(0) {
    Registry& reg = registry();
    std::lock_guard<std::recursive_mutex> hold(reg.mutex);
    reg.modules.push_back(this);
}

ModuleData::~ModuleData() {
    Registry& reg = registry();
    std::lock_guard<std::recursive_mutex> hold(reg.mutex);
    reg.modules.erase(std::remove(reg.modules.begin(), reg.modules.end(), this), reg.modules.end());
}

void ModuleData::attach() {}

void ModuleData::detach() {}

void ModuleData::countedAttach() {
    // Counted only once attach() returned: a module whose attach threw is
    // attached again by the next caller.
    if (m_nAttachCount == 0) attach();
    ++m_nAttachCount;
}

void ModuleData::countedDetach() {
    if (m_nAttachCount <= 0) return;
    if (--m_nAttachCount == 0) detach();
}

void ModuleData::entry() {
    Registry& reg = registry();
    std::lock_guard<std::recursive_mutex> hold(reg.mutex);
    ORVO_LOG(9, "ModuleData::entry: modules=" << static_cast<unsigned long>(reg.modules.size()));
    // Visit a snapshot: an attach() may add or remove modules; a removed one
    // is skipped, an added one is left to its own start.
    const std::vector<ModuleData*> snapshot = reg.modules;
    for (ModuleData* pModule : snapshot) {
        if (isRegistered(reg, pModule)) pModule->countedAttach();
    }
}

void ModuleData::exit() {
    Registry& reg = registry();
    std::lock_guard<std::recursive_mutex> hold(reg.mutex);
    ORVO_LOG(9, "ModuleData::exit: modules=" << static_cast<unsigned long>(reg.modules.size()));
    // Reverse order of registration: a module stops before those it was loaded after.
    const std::vector<ModuleData*> snapshot = reg.modules;
    for (auto it = snapshot.rbegin(); it != snapshot.rend(); ++it) {
        if (isRegistered(reg, *it)) (*it)->countedDetach();
    }
}

void ModuleData::autoAttach() {
    if (!m_bAutoInit) return;
    std::lock_guard<std::recursive_mutex> hold(registry().mutex);
    countedAttach();
}

void ModuleData::autoDetach() {
    if (!m_bAutoInit) return;
    std::lock_guard<std::recursive_mutex> hold(registry().mutex);
    countedDetach();
}

}  // namespace OrvoSupport

// The dynamic interface of libksintf.so.3 (`nm -D --defined-only`): every C
// entry point is there and nothing else leaks. A strong foreign C++ definition
// escaped hidden visibility (weak ones are template/inline instances every user
// emits); a GNU-unique symbol (u) pins the library in memory, so it is always a fault.

#include <cxxabi.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

namespace {

struct Symbol { char type; std::string name, demangled; };

std::vector<Symbol> readDynamicSymbols(const std::string& sLibrary) {
    std::vector<Symbol> symbols;
    FILE* pipe = popen(("nm -D --defined-only '" + sLibrary + "' 2>/dev/null").c_str(), "r");
    char line[4096], szAddress[64], szType[8], szName[4000];
    while (pipe != nullptr && std::fgets(line, sizeof(line), pipe) != nullptr) {
        if (std::sscanf(line, "%63s %7s %3999s", szAddress, szType, szName) != 3) continue;
        std::string sName(szName);
        sName = sName.substr(0, sName.find('@'));
        if (sName.starts_with("__odr_asan.")) sName.erase(0, 11);  // ASan's per-variable indicator
        int nStatus = -1;
        char* p = sName.starts_with("_Z") ? abi::__cxa_demangle(sName.c_str(), nullptr, nullptr, &nStatus) : nullptr;
        symbols.push_back({szType[0], sName, nStatus == 0 && p ? std::string(p) : sName});
        std::free(p);
    }
    if (pipe != nullptr) pclose(pipe);
    return symbols;
}

const std::set<std::string> kCEntryPoints = {
    "KSIntfInitModuleData", "KSIntfFinitModuleData", "OrvoNNRegisterForNotification",
    "OrvoNNUnregisterForNotification", "OrvoNNNotify", "OrvoTSScheduleTask", "OrvoTSScheduledTaskLookup",
    "OrvoTSCancelTask", "OrvoTSTaskState", "OrvoTSExitCode", "OrvoTSExecutionInformation", "OrvoTSListAllExecTasks",
    "OrvoTSListAllBlobTasks", "OrvoTSScheduleBlobTask", "OrvoTSScheduledTaskGetNextTime", "OrvoTSRetrieveBlobTask",
    "OrvoTSRegisterForNotification", "OrvoTSUnregisterForNotification", "OrvoRAResourceLock", "OrvoRAResourceUnlock",
    "OrvoRARegisterForNotification", "OrvoRAUnregisterForNotification", "OrvoJSECreateJob", "OrvoJSELookupJob",
    "OrvoJSEMapJobIDToAppID", "OrvoJSEDeleteJob", "OrvoJSESetJobProgress", "OrvoJSEGetJobProgress",
    "OrvoJSEGetAllJobProgress", "OrvoJSECancelJob", "OrvoJSERegisterForNotification",
    "OrvoJSEUnregisterForNotification"};

bool isOurs(std::string s) {
    for (const char* pszPrefix : {"vtable for ", "typeinfo name for ", "typeinfo for ", "VTT for ",
                                  "construction vtable for ", "non-virtual thunk to ", "virtual thunk to ",
                                  "guard variable for "})
        if (s.starts_with(pszPrefix)) s.erase(0, std::strlen(pszPrefix));
    for (const char* pszPrefix : {"KSInterface::", "OrvoSupport::", "OrvoNet::", "KSIntfLibInit", "KSIntfLibFinit",
                                  "JSNotificationInfo::", "RANotificationInfo::"})
        if (s.starts_with(pszPrefix)) return true;
    static const std::set<std::string> kNamed = {
        "_OrvoNNRegisterForNotification", "MapNNExceptionCode", "OrvoTSNotificationCallback",
        "OrvoRANotificationCallback", "OrvoJSNotificationCallback", "getRANotificationInfoByHandleMap",
        "getJSNotificationInfoByHandleMap", "JSNotificationInfo", "RANotificationInfo"};
    return kNamed.count(s.substr(0, s.find('('))) != 0;
}

TEST(LibrarySymbols, ExportsEveryEntryPointAndNothingForeign) {
    const std::vector<Symbol> symbols = readDynamicSymbols(KSINTF_LIBRARY_FILE);
    ASSERT_FALSE(symbols.empty()) << "no symbols read from " << KSINTF_LIBRARY_FILE;
    std::set<std::string> present, functions;
    std::string sForeign;
    for (const auto& sym : symbols) {
        present.insert(sym.demangled);
        functions.insert(sym.demangled.substr(0, sym.demangled.find_first_of("([")));
        const bool bOk = sym.name.starts_with("_Z")
                             ? sym.type == 'W' || sym.type == 'V' || isOurs(sym.demangled)
                             : kCEntryPoints.count(sym.name) != 0 || sym.name.starts_with("Java_com_orvo_ksa_common_");
        if (sym.type == 'u' || !bOk) sForeign += "\n  " + std::string(1, sym.type) + " " + sym.demangled;
    }
    for (const auto& sName : kCEntryPoints) EXPECT_EQ(present.count(sName), 1u) << "missing " << sName;
    // These are C++ functions, not C names.
    for (const char* pszName : {"KSInterface::GetYear", "KSInterface::TaskSchedulerEventName",
                                "OrvoTSNotificationCallback"})
        EXPECT_EQ(functions.count(pszName), 1u) << "missing " << pszName;
    EXPECT_EQ(present.count("KSInterface::Validate(int, int, int, bool)"), 1u);
    EXPECT_EQ(sForeign, "") << "unexpected exports:";
}

}  // namespace

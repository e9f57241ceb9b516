#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>

#include "OrvoNotificationNetwork.h"
#include "commands.h"
#include "failure.h"
#include "json.h"
#include "output.h"

namespace ksctl {
namespace {

bool readPayload(const std::string& path, std::string& out) {
    if (path == "-") {
        std::ostringstream buffer;
        buffer << std::cin.rdbuf();
        out = buffer.str();
        return !std::cin.bad();
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    out.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return !in.bad();
}

}  // namespace

int runPublish(const GlobalOptions& options, const PublishArgs& args) {
    std::string payload;
    if (args.dataFile && !readPayload(*args.dataFile, payload)) {
        return reportError("cannot read " + *args.dataFile + ": " + std::strerror(errno), kExitUsage);
    }

    OrvoNNNotification notification{};
    notification.m_pszData = args.text.c_str();
    notification.m_pData = payload.data();
    notification.m_nDataLength = static_cast<long>(payload.size());
    int queued = OrvoNNNotify(args.event.c_str(), &notification);
    if (queued < 0) return reportFailure("publish " + args.event, Domain::Notify, queued);

    if (options.json) {
        std::printf("{\"event\":%s,\"queued\":%d}\n", jsonQuote(args.event).c_str(), queued);
    } else {
        std::printf("%s: queued for %d subscriber%s\n", oneLine(args.event).c_str(), queued, queued == 1 ? "" : "s");
    }
    return kExitOk;
}

}  // namespace ksctl

#include "server/connection_responder.h"

#include <utility>

#include "server/connection.h"

namespace ksd {

void ConnectionResponder::reply(std::string encodedFields) {
    if (answered_ || closed_) return;
    answered_ = true;
    if (auto c = connection_.lock()) c->sendReply(std::move(encodedFields));
}

void ConnectionResponder::fail(int code, std::string_view message) {
    if (answered_ || closed_) return;
    answered_ = true;
    if (auto c = connection_.lock()) c->sendError(code, message, true);
}

bool ConnectionResponder::isOpen() const {
    if (closed_) return false;
    auto c = connection_.lock();
    return c && c->isOpen();
}

void ConnectionResponder::onClose(std::function<void()> handler) {
    if (answered_) return;
    if (closed_) {
        // Already gone: the caller still learns it, once.
        if (handler) handler();
        return;
    }
    closeHandler_ = std::move(handler);
}

void ConnectionResponder::connectionClosed() {
    if (closed_) return;
    closed_ = true;
    auto handler = std::move(closeHandler_);
    closeHandler_ = nullptr;
    if (!answered_ && handler) handler();
}

}  // namespace ksd

#ifndef KSD_SERVER_CONNECTION_RESPONDER_H
#define KSD_SERVER_CONNECTION_RESPONDER_H

// The Responder of one request on one connection: the first answer wins,
// later ones and answers after the connection went away do nothing.
// Used on the event loop only.

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "protocol/request.h"

namespace ksd {

class Connection;

class ConnectionResponder final : public Responder {
public:
    explicit ConnectionResponder(std::weak_ptr<Connection> connection) : connection_(std::move(connection)) {}

    void reply(std::string encodedFields) override;
    void fail(int code, std::string_view message) override;
    bool isOpen() const override;
    void onClose(std::function<void()> handler) override;

    bool answered() const { return answered_; }
    // The connection closed: runs the close handler if the request was not answered.
    void connectionClosed();

private:
    std::weak_ptr<Connection> connection_;
    std::function<void()> closeHandler_;
    bool answered_ = false;
    bool closed_ = false;
};

}  // namespace ksd

#endif

#ifndef KSD_PROTOCOL_REQUEST_CATALOG_H
#define KSD_PROTOCOL_REQUEST_CATALOG_H

// What the request layer needs to know of the services behind it: which
// service names exist and which fields each request takes (the catalog),
// and where a whole request goes (the handler).

#include <string_view>

#include "protocol/request.h"

namespace ksd {

class RequestCatalog {
public:
    virtual ~RequestCatalog() = default;
    virtual bool serves(std::string_view service) const = 0;
    // The field plan of a request, or null when it is not served (ENOSYS).
    virtual const FieldPlan* plan(std::string_view service, std::string_view request) const = 0;
};

class RequestHandler : public RequestCatalog {
public:
    // Called on the event loop with every field decoded; must not block.
    virtual void handle(Request& request) = 0;
};

}  // namespace ksd

#endif

#include "services/service.h"

#include <utility>

namespace ksd {

FieldPlan fixedPlan(std::vector<FieldKind> kinds) {
    return [kinds = std::move(kinds)](const std::vector<Value>& fieldsSoFar) -> FieldSpec {
        if (fieldsSoFar.size() < kinds.size()) return FieldSpec{kinds[fieldsSoFar.size()], 0, 0};
        return FieldSpec{FieldKind::Done, 0, 0};
    };
}

}  // namespace ksd

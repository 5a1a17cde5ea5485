#include "qel/core/SkelionService.h"

namespace qel::core {

SkelionService::~SkelionService() = default;

}  // namespace qel::core

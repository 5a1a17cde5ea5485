#include "qel/core/SkelionService.h"

#include "qel/core/QELHostname.h"

namespace qel::core {

SkelionService::~SkelionService() = default;

bool SkelionService::init() {
  QELConfiguration::reread();
  return true;
}

}  // namespace qel::core

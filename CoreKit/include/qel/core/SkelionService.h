#pragma once

#include <qel/Object.h>

namespace qel::core {

// The base class of every cabin service a framework offers to applications.
class QEL_EXPORT SkelionService : public Object {
 public:
  ~SkelionService() override;

 protected:
  SkelionService() = default;
  // The base initialiser; a subclass's factory calls it first and gives up
  // when it fails. A new service reads the configuration afresh, once.
  bool init();
};

}  // namespace qel::core

#include "qel/Object.h"

#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <typeinfo>

namespace qel {

Object::~Object() = default;

std::string Object::description() const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  const char* name = (status == 0 && demangled) ? demangled.get() : mangled;
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(this));
  return std::string("<") + name + ": " + address + ">";
}

}  // namespace qel

#pragma once

#include "qel/Object.h"

#include <boost/json/value.hpp>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace qel {

// The description of a JSON value as the platform prints an object with "%@":
// an integer as its digits, a double in its shortest exact form without a
// needless fraction or exponent (800.0 -> "800", 1024.5 -> "1024.5",
// 0.1 -> "0.1"), a string as itself, true/false as "1"/"0", null as "<null>",
// arrays and objects as compact JSON. A missing value (nullptr) is "(null)".
QEL_EXPORT std::string describe(const boost::json::value* value);
inline std::string describe(const boost::json::value& value) { return describe(&value); }

// A value read as a 32-bit float: a number rounded to single precision (one
// beyond float's range gives infinity of its sign, as round-to-nearest does,
// whatever the rounding mode), a string parsed like a leading decimal number
// (0 when there is none), true 1, anything else (missing included) 0.
QEL_EXPORT float floatValue(const boost::json::value* value);

// "a/b/c.cpp" -> "c.cpp".
constexpr std::string_view lastPathComponent(std::string_view path) {
  const auto slash = path.find_last_of('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

// One argument of stringWithFormat. Any mismatch between a conversion and its
// argument prints the argument's description instead of misbehaving.
class QEL_EXPORT FormatArgument {
 public:
  FormatArgument(std::nullptr_t) : value_(Nil{}) {}
  FormatArgument(const char* text) : value_(text ? Value(std::string_view(text)) : Value(Nil{})) {}
  FormatArgument(std::string_view text) : value_(text) {}
  FormatArgument(const std::string& text) : value_(std::string_view(text)) {}
  FormatArgument(const std::optional<std::string>& text)
      : value_(text ? Value(std::string_view(*text)) : Value(Nil{})) {}
  FormatArgument(bool number) : value_(static_cast<std::int64_t>(number)) {}
  FormatArgument(int number) : value_(static_cast<std::int64_t>(number)) {}
  FormatArgument(long number) : value_(static_cast<std::int64_t>(number)) {}
  FormatArgument(long long number) : value_(static_cast<std::int64_t>(number)) {}
  FormatArgument(unsigned number) : value_(static_cast<std::int64_t>(number)) {}
  FormatArgument(unsigned long number) : value_(static_cast<std::int64_t>(number)) {}
  FormatArgument(double number) : value_(number) {}
  FormatArgument(const boost::json::value& json) : value_(&json) {}
  FormatArgument(const boost::json::value* json) : value_(json ? Value(json) : Value(Nil{})) {}
  FormatArgument(const boost::json::object& json) : value_(&json) {}
  FormatArgument(const boost::json::object* json) : value_(json ? Value(json) : Value(Nil{})) {}
  template <class T>
  FormatArgument(const std::shared_ptr<T>& object)
    requires std::is_base_of_v<Object, T>
      : value_(object ? Value(static_cast<const Object*>(object.get())) : Value(Nil{})) {}
  template <class T>
  FormatArgument(const std::shared_ptr<const T>& json)
    requires std::is_same_v<T, boost::json::object>
      : value_(json ? Value(json.get()) : Value(Nil{})) {}

  // "%@": the description ("(null)" for nil).
  std::string describe() const;
  // "%s": the text itself ("(null)" for nil).
  std::string text() const;
  // "%d"/"%i": the integer, or the description when it is not one.
  std::string integer() const;
  // The argument as a number, when it is one (JSON numbers included); used
  // by the numeric conversions.
  std::optional<std::int64_t> integerValue() const;
  std::optional<double> doubleValue() const;

 private:
  struct Nil {};
  using Value = std::variant<Nil, std::string_view, std::int64_t, double, const boost::json::value*,
                             const boost::json::object*, const Object*>;
  Value value_;
};

// printf-style formatting with the platform's conversions: %@ (description),
// %s, %d, %i, %ld, %lu, %u, %f (fixed, 6 places) and %%. An unknown conversion
// is copied as it stands; missing arguments print "(null)".
QEL_EXPORT std::string stringWithFormatArgs(std::string_view format, std::initializer_list<FormatArgument> args);

template <class... Args>
std::string stringWithFormat(std::string_view format, const Args&... args) {
  return stringWithFormatArgs(format, {FormatArgument(args)...});
}

}  // namespace qel

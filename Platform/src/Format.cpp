#include "qel/Format.h"

#include <boost/json/serialize.hpp>

#include <cctype>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <locale.h>
#include <limits>

namespace qel {
namespace {

// The shortest text that reads back as the same double, without a needless
// ".0" (800.0 -> "800") and in exponent form only when that is shorter.
std::string describeDouble(double number) {
  if (std::isnan(number)) return "nan";
  if (std::isinf(number)) return number < 0 ? "-inf" : "inf";
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
  return std::string(buffer, result.ptr);
}

std::string describeObject(const boost::json::object& object) {
  return boost::json::serialize(object);
}

// A double rounded to single precision. C++ leaves the conversion of a value
// beyond float's range undefined, and a server can send 1e39, so the overflow
// is decided here, as round-to-nearest decides it and whatever the rounding
// mode: from halfway between the largest float and 2^128 on the nearest
// float is infinity, below that it is the largest float.
float singlePrecision(double number) {
  constexpr double kLargest = std::numeric_limits<float>::max();
  constexpr double kHalfwayToInfinity = 0x1.ffffffp127;
  if (std::isnan(number)) return std::numeric_limits<float>::quiet_NaN();
  const double magnitude = std::fabs(number);
  if (magnitude <= kLargest) return static_cast<float>(number);
  const float bound = magnitude >= kHalfwayToInfinity ? std::numeric_limits<float>::infinity()
                                                      : std::numeric_limits<float>::max();
  return std::signbit(number) ? -bound : bound;
}

// The longest prefix of `text` (after leading white space) that reads as a
// decimal number: sign, digits, fraction, exponent. No hex, no inf/nan.
float parseLeadingFloat(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && std::isspace(static_cast<unsigned char>(text[i]))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  const std::size_t start = i;
  std::size_t digits = 0;
  while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  if (i < text.size() && text[i] == '.') {
    ++i;
    while (i < text.size() && std::isdigit(static_cast<unsigned char>(text[i]))) ++i, ++digits;
  }
  if (digits == 0) return 0;
  if (i < text.size() && (text[i] == 'e' || text[i] == 'E')) {
    std::size_t j = i + 1;
    if (j < text.size() && (text[j] == '+' || text[j] == '-')) ++j;
    if (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) {
      while (j < text.size() && std::isdigit(static_cast<unsigned char>(text[j]))) ++j;
      i = j;
    }
  }
  float value = 0;
  const auto result = std::from_chars(text.data() + start, text.data() + i, value);
  if (result.ec == std::errc::result_out_of_range) {
    // from_chars leaves the value alone when it is beyond float's range or
    // too small for it; read as a double (in the C locale, whatever the
    // application set), it is converted as any number is.
    static const locale_t cLocale = ::newlocale(LC_ALL_MASK, "C", nullptr);
    value = singlePrecision(::strtod_l(std::string(text.substr(start, i - start)).c_str(), nullptr, cLocale));
  }
  return negative ? -value : value;
}

std::string signedDigits(std::int64_t number) { return std::to_string(number); }

}  // namespace

std::string describe(const boost::json::value* value) {
  if (!value) return "(null)";
  switch (value->kind()) {
    case boost::json::kind::null:
      return "<null>";
    case boost::json::kind::bool_:
      return value->get_bool() ? "1" : "0";
    case boost::json::kind::int64:
      return std::to_string(value->get_int64());
    case boost::json::kind::uint64:
      return std::to_string(value->get_uint64());
    case boost::json::kind::double_:
      return describeDouble(value->get_double());
    case boost::json::kind::string:
      return std::string(value->get_string());
    case boost::json::kind::array:
    case boost::json::kind::object:
      return boost::json::serialize(*value);
  }
  return {};
}

float floatValue(const boost::json::value* value) {
  if (!value) return 0;
  switch (value->kind()) {
    // Every 64-bit integer lies within float's range.
    case boost::json::kind::int64:
      return static_cast<float>(value->get_int64());
    case boost::json::kind::uint64:
      return static_cast<float>(value->get_uint64());
    case boost::json::kind::double_:
      return singlePrecision(value->get_double());
    case boost::json::kind::string:
      return parseLeadingFloat(value->get_string());
    case boost::json::kind::bool_:
      return value->get_bool() ? 1.0f : 0.0f;
    default:
      return 0;
  }
}

std::string FormatArgument::describe() const {
  struct Visitor {
    std::string operator()(Nil) const { return "(null)"; }
    std::string operator()(std::string_view text) const { return std::string(text); }
    std::string operator()(std::int64_t number) const { return signedDigits(number); }
    std::string operator()(double number) const { return describeDouble(number); }
    std::string operator()(const boost::json::value* json) const { return qel::describe(json); }
    std::string operator()(const boost::json::object* json) const { return describeObject(*json); }
    std::string operator()(const Object* object) const { return object->description(); }
  };
  return std::visit(Visitor{}, value_);
}

std::string FormatArgument::text() const { return describe(); }

std::string FormatArgument::integer() const {
  if (auto number = integerValue()) return signedDigits(*number);
  return describe();
}

std::optional<std::int64_t> FormatArgument::integerValue() const {
  if (const auto* number = std::get_if<std::int64_t>(&value_)) return *number;
  if (const auto* json = std::get_if<const boost::json::value*>(&value_)) {
    if ((*json)->is_int64()) return (*json)->get_int64();
    if ((*json)->is_uint64()) return static_cast<std::int64_t>((*json)->get_uint64());
  }
  return std::nullopt;
}

std::optional<double> FormatArgument::doubleValue() const {
  if (auto number = integerValue()) return static_cast<double>(*number);
  if (const auto* number = std::get_if<double>(&value_)) return *number;
  if (const auto* json = std::get_if<const boost::json::value*>(&value_)) {
    if ((*json)->is_double()) return (*json)->get_double();
  }
  return std::nullopt;
}

namespace {

// The parts of one conversion after '%' (flags, width, precision, length).
struct Spec {
  std::string flags;
  std::string width;
  std::string precision;  // with its '.', when given
  std::string length;
  char conversion = 0;
};

template <class T>
std::string printfOne(const Spec& spec, const char* length, char conversion, T value) {
  const std::string format = "%" + spec.flags + spec.width + spec.precision + length + conversion;
  char buffer[128];
  const int size = std::snprintf(buffer, sizeof buffer, format.c_str(), value);
  if (size < 0) return {};
  if (static_cast<std::size_t>(size) < sizeof buffer) return std::string(buffer, size);
  std::string big(static_cast<std::size_t>(size) + 1, '\0');
  std::snprintf(big.data(), big.size(), format.c_str(), value);
  big.resize(static_cast<std::size_t>(size));
  return big;
}

std::string padded(const Spec& spec, std::string text) {
  if (spec.width.empty()) return text;
  const std::size_t width = static_cast<std::size_t>(std::stoul(spec.width));
  if (text.size() >= width) return text;
  const bool left = spec.flags.find('-') != std::string::npos;
  return left ? text + std::string(width - text.size(), ' ')
              : std::string(width - text.size(), ' ') + text;
}

}  // namespace

std::string stringWithFormatArgs(std::string_view format,
                                 std::initializer_list<FormatArgument> args) {
  std::string out;
  out.reserve(format.size() + 16 * args.size());
  auto next = args.begin();
  static const FormatArgument kMissing(nullptr);
  auto take = [&]() -> const FormatArgument& { return next != args.end() ? *next++ : kMissing; };

  std::size_t i = 0;
  while (i < format.size()) {
    const char c = format[i];
    if (c != '%') {
      out.push_back(c);
      ++i;
      continue;
    }
    const std::size_t start = i++;
    Spec spec;
    while (i < format.size() && std::string_view("-+ 0#").find(format[i]) != std::string_view::npos)
      spec.flags.push_back(format[i++]);
    while (i < format.size() && std::isdigit(static_cast<unsigned char>(format[i])))
      spec.width.push_back(format[i++]);
    if (i < format.size() && format[i] == '.') {
      spec.precision.push_back(format[i++]);
      while (i < format.size() && std::isdigit(static_cast<unsigned char>(format[i])))
        spec.precision.push_back(format[i++]);
    }
    while (i < format.size() && std::string_view("hlqzjt").find(format[i]) != std::string_view::npos)
      spec.length.push_back(format[i++]);
    if (i >= format.size()) {
      out.append(format.substr(start));
      break;
    }
    spec.conversion = format[i++];
    switch (spec.conversion) {
      case '%':
        out.push_back('%');
        break;
      case '@':
        out += padded(spec, take().describe());
        break;
      case 's':
        out += padded(spec, take().text());
        break;
      case 'd':
      case 'i': {
        const FormatArgument& argument = take();
        if (auto number = argument.integerValue()) {
          const bool wide = !spec.length.empty() && spec.length != "h" && spec.length != "hh";
          out += wide ? printfOne(spec, "ll", 'd', static_cast<long long>(*number))
                      : printfOne(spec, "", 'd', static_cast<int>(*number));
        } else {
          out += padded(spec, argument.describe());
        }
        break;
      }
      case 'u': {
        const FormatArgument& argument = take();
        if (auto number = argument.integerValue()) {
          const bool wide = !spec.length.empty() && spec.length != "h" && spec.length != "hh";
          out += wide ? printfOne(spec, "ll", 'u', static_cast<unsigned long long>(*number))
                      : printfOne(spec, "", 'u', static_cast<unsigned>(*number));
        } else {
          out += padded(spec, argument.describe());
        }
        break;
      }
      case 'f': {
        const FormatArgument& argument = take();
        if (auto number = argument.doubleValue()) {
          out += printfOne(spec, "", 'f', *number);
        } else {
          out += padded(spec, argument.describe());
        }
        break;
      }
      default:
        // Not a conversion this platform knows: keep the text as written.
        out.append(format.substr(start, i - start));
        break;
    }
  }
  return out;
}

}  // namespace qel

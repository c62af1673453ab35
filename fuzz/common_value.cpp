// CommonValue under a fuzzed sequence of constructions, setters, copies and moves on a few
// slots, each slot shadowed by a model of what it must hold (tag, live scalar, and the string,
// point and array storage). After every step every slot must give the model's type, every
// numeric conversion, the point, the text, both vector conversions and its storage; the reserved
// block always reads 0, 0, -1, -1. Floating values stay inside the range of a 64-bit integer,
// the only range in which their integer conversions are defined.
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "base/container/common_value.h"
#include "support/fuzz_check.h"

namespace {

using velmora::base::container::CommonValue;
using velmora::base::container::Point;
using velmora::fuzzing::escaped;

constexpr int kSlots = 3;
constexpr std::size_t kMaxText = 256;  // keeps nested arrays from growing without bound

struct Model {
  int tag = 255;
  int64_t integer = 0;  // tags 1-7: the live value, sign- or zero-extended
  float f = 0;
  double d = 0;
  std::string text;
  Point point;
  std::vector<Model> array;
};

bool isIntegerTag(int tag) {
  return tag >= 1 && tag <= 7;
}

bool isUnsignedTag(int tag) {
  return tag == 2 || tag == 4 || tag == 6;
}

// The scalar as 64 bits, as every integer conversion sees it before taking its low bits.
uint64_t integerBits(const Model& m) {
  if (isIntegerTag(m.tag)) {
    return static_cast<uint64_t>(m.integer);
  }
  if (m.tag == 8) {
    return static_cast<uint64_t>(static_cast<int64_t>(m.f));
  }
  if (m.tag == 9) {
    return static_cast<uint64_t>(static_cast<int64_t>(m.d));
  }
  return 0;
}

bool modelBool(const Model& m) {
  if (isIntegerTag(m.tag)) {
    return m.integer != 0;
  }
  if (m.tag == 8) {
    return m.f != 0.0f;
  }
  return m.tag == 9 && m.d != 0.0;
}

double modelDouble(const Model& m) {
  if (m.tag == 8) {
    return static_cast<double>(m.f);
  }
  if (m.tag == 9) {
    return m.d;
  }
  if (!isIntegerTag(m.tag)) {
    return 0.0;
  }
  return isUnsignedTag(m.tag) ? static_cast<double>(static_cast<uint64_t>(m.integer))
                              : static_cast<double>(m.integer);
}

float modelFloat(const Model& m) {
  if (m.tag == 8) {
    return m.f;
  }
  if (m.tag == 9) {
    return static_cast<float>(m.d);
  }
  if (!isIntegerTag(m.tag)) {
    return 0.0f;
  }
  return isUnsignedTag(m.tag) ? static_cast<float>(static_cast<uint64_t>(m.integer))
                              : static_cast<float>(m.integer);
}

std::string modelText(const Model& m);

std::string arrayText(const std::vector<Model>& array) {
  std::string text = "[";
  for (std::size_t i = 0; i < array.size(); ++i) {
    text += (i == 0 ? "" : ",") + modelText(array[i]);
  }
  return text + "]";
}

std::string modelText(const Model& m) {
  std::ostringstream out;
  switch (m.tag) {
    case 0:
      return "null";
    case 1:
    case 3:
    case 5:
      out << m.integer;
      return out.str();
    case 2:
    case 4:
    case 6:
      out << static_cast<uint64_t>(m.integer);
      return out.str();
    case 7:
      return m.integer != 0 ? "TRUE" : "FALSE";
    case 8:
      out << static_cast<double>(m.f);
      return out.str();
    case 9:
      out << m.d;
      return out.str();
    case 10:
      return m.text;
    case 11:
      out << "(" << m.point.x << "," << m.point.y << ")";
      return out.str();
    case 12:
      return arrayText(m.array);
    case 255:
      return "Undefined" + arrayText(m.array);
    default:
      return "";
  }
}

bool sameFloat(double a, double b) {
  return std::memcmp(&a, &b, sizeof(a)) == 0 || a == b;
}

void checkValue(const CommonValue& v, const Model& m, const std::string& where) {
  const std::string text = modelText(m);
  // Built only when a check fails.
  auto describe = [&]() {
    return where + ": model tag " + std::to_string(m.tag) + " text \"" + escaped(text) +
           "\", value text \"" + escaped(v.convertToStringType()) + "\"";
  };
  FUZZ_CHECK(v.type() == m.tag, describe());
  const uint64_t bits = integerBits(m);
  FUZZ_CHECK(static_cast<bool>(v) == modelBool(m), describe() + " (bool)");
  FUZZ_CHECK(static_cast<int>(v) == static_cast<int>(static_cast<uint32_t>(bits)),
             describe() + " (int)");
  FUZZ_CHECK(static_cast<unsigned int>(v) == static_cast<uint32_t>(bits), describe() + " (uint)");
  FUZZ_CHECK(static_cast<short>(v) == static_cast<short>(static_cast<uint16_t>(bits)),
             describe() + " (short)");
  FUZZ_CHECK(static_cast<unsigned short>(v) == static_cast<uint16_t>(bits),
             describe() + " (ushort)");
  FUZZ_CHECK(static_cast<long long>(v) == static_cast<long long>(bits),
             describe() + " (long long)");
  FUZZ_CHECK(static_cast<unsigned long long>(v) == bits, describe() + " (unsigned long long)");
  FUZZ_CHECK(sameFloat(static_cast<float>(v), modelFloat(m)), describe() + " (float)");
  FUZZ_CHECK(sameFloat(static_cast<double>(v), modelDouble(m)), describe() + " (double)");
  const Point point = static_cast<Point>(v);
  const Point expectedPoint = m.tag == 11 ? m.point : Point();
  FUZZ_CHECK(point.x == expectedPoint.x && point.y == expectedPoint.y, describe() + " (Point)");
  FUZZ_CHECK(v.convertToStringType() == text, describe() + " (text)");
  FUZZ_CHECK(static_cast<std::string>(v) == text, describe() + " (operator std::string)");

  std::vector<unsigned int> numbers;
  std::vector<std::string> texts;
  if (m.tag == 12) {
    for (const Model& element : m.array) {
      numbers.push_back(static_cast<uint32_t>(integerBits(element)));
      texts.push_back(modelText(element));
    }
  } else {
    numbers.push_back(static_cast<uint32_t>(bits));
    texts.push_back(text);
  }
  FUZZ_CHECK(v.convertToVectorT<unsigned int>() == numbers, describe() + " (vector<unsigned int>)");
  FUZZ_CHECK(static_cast<std::vector<unsigned int>>(v) == numbers,
             describe() + " (operator vector)");
  FUZZ_CHECK(v.convertToVectorT<std::string>() == texts, describe() + " (vector<std::string>)");
  FUZZ_CHECK(static_cast<std::vector<std::string>>(v) == texts, describe() + " (operator vector)");

  FUZZ_CHECK(v.textStorage() == m.text, describe() + " (string storage \"" +
                                            escaped(v.textStorage()) + "\" vs \"" +
                                            escaped(m.text) + "\")");
  FUZZ_CHECK(v.pointStorage().x == m.point.x && v.pointStorage().y == m.point.y,
             describe() + " (point storage)");
  FUZZ_CHECK(v.arrayStorage().size() == m.array.size(), describe() + " (array storage)");
  for (std::size_t i = 0; i < m.array.size(); ++i) {
    checkValue(v.arrayStorage()[i], m.array[i], where + " element " + std::to_string(i));
  }
  const std::array<int32_t, 4> reserved = {0, 0, -1, -1};
  FUZZ_CHECK(v.reservedBlock() == reserved, describe() + " (reserved block)");
}

// A model as a copy or move constructor leaves it: the live member only, and every array
// element likewise.
Model liveOnly(const Model& m) {
  Model copy;
  copy.tag = m.tag;
  if (m.tag >= 1 && m.tag <= 9) {
    copy.integer = m.integer;
    copy.f = m.f;
    copy.d = m.d;
  } else if (m.tag == 10) {
    copy.text = m.text;
  } else if (m.tag == 11) {
    copy.point = m.point;
  } else if (m.tag == 12) {
    for (const Model& element : m.array) {
      copy.array.push_back(liveOnly(element));  // elements are copy-constructed too
    }
  }
  return copy;
}

// Finite and inside (-2^63, 2^63).
template <typename T>
T boundedReal(FuzzedDataProvider& provider) {
  const double limit = 9.2e18;
  double value = provider.ConsumeFloatingPoint<double>();
  if (!std::isfinite(value)) {
    value = 0.5;
  }
  while (std::fabs(value) >= limit) {
    value /= 1e6;
  }
  return static_cast<T>(value);
}

// A scalar, string or point chosen by the input, with the model of the value it gives.
struct Choice {
  int tag;
  int64_t integer;
  float f;
  double d;
  std::string text;
  Point point;
};

Choice choose(FuzzedDataProvider& provider) {
  Choice c{provider.ConsumeIntegralInRange<int>(1, 11), 0, 0.0f, 0.0, std::string(), Point()};
  switch (c.tag) {
    case 1:
      c.integer = provider.ConsumeIntegral<int>();
      break;
    case 2:
      c.integer = provider.ConsumeIntegral<unsigned int>();
      break;
    case 3:
      c.integer = provider.ConsumeIntegral<short>();
      break;
    case 4:
      c.integer = provider.ConsumeIntegral<unsigned short>();
      break;
    case 5:
      c.integer = provider.ConsumeIntegral<long long>();
      break;
    case 6:
      c.integer = static_cast<int64_t>(provider.ConsumeIntegral<unsigned long long>());
      break;
    case 7:
      c.integer = provider.ConsumeBool() ? 1 : 0;
      break;
    case 8:
      c.f = boundedReal<float>(provider);
      break;
    case 9:
      c.d = boundedReal<double>(provider);
      break;
    case 10:
      c.text = provider.ConsumeRandomLengthString(32);
      break;
    default:
      c.point.x = provider.ConsumeIntegral<int32_t>();
      c.point.y = provider.ConsumeIntegral<int32_t>();
      break;
  }
  return c;
}

// The constructor of the chosen type.
CommonValue construct(const Choice& c) {
  switch (c.tag) {
    case 1:
      return CommonValue(static_cast<int>(c.integer));
    case 2:
      return CommonValue(static_cast<unsigned int>(c.integer));
    case 3:
      return CommonValue(static_cast<short>(c.integer));
    case 4:
      return CommonValue(static_cast<unsigned short>(c.integer));
    case 5:
      return CommonValue(static_cast<long long>(c.integer));
    case 6:
      return CommonValue(static_cast<unsigned long long>(c.integer));
    case 7:
      return CommonValue(c.integer != 0);
    case 8:
      return CommonValue(c.f);
    case 9:
      return CommonValue(c.d);
    case 10:
      return CommonValue(c.text);
    default:
      return CommonValue(c.point);
  }
}

// The setter of the chosen type.
void assign(CommonValue& v, const Choice& c) {
  switch (c.tag) {
    case 1:
      v = static_cast<int>(c.integer);
      break;
    case 2:
      v = static_cast<unsigned int>(c.integer);
      break;
    case 3:
      v = static_cast<short>(c.integer);
      break;
    case 4:
      v = static_cast<unsigned short>(c.integer);
      break;
    case 5:
      v = static_cast<long long>(c.integer);
      break;
    case 6:
      v = static_cast<unsigned long long>(c.integer);
      break;
    case 7:
      v = c.integer != 0;
      break;
    case 8:
      v = c.f;
      break;
    case 9:
      v = c.d;
      break;
    case 10:
      v = c.text;
      break;
    default:
      v = c.point;
      break;
  }
}

// What a setter leaves: the tag and its own member; the other storage is kept.
void applyToModel(Model& m, const Choice& c) {
  m.tag = c.tag;
  if (c.tag <= 7) {
    m.integer = c.integer;
  } else if (c.tag == 8) {
    m.f = c.f;
  } else if (c.tag == 9) {
    m.d = c.d;
  } else if (c.tag == 10) {
    m.text = c.text;
  } else {
    m.point = c.point;
  }
}

std::size_t textSize(const Model& m) {
  return modelText(m).size() + m.text.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider provider(data, size);
  std::vector<CommonValue> values(kSlots);
  std::vector<Model> models(kSlots);
  for (int step = 0; provider.remaining_bytes() > 0 && step < 16; ++step) {
    const int target = provider.ConsumeIntegralInRange<int>(0, kSlots - 1);
    const int source = provider.ConsumeIntegralInRange<int>(0, kSlots - 1);
    CommonValue& v = values[target];
    Model& m = models[target];
    std::string what;
    switch (provider.ConsumeIntegralInRange<int>(0, 10)) {
      case 0: {
        const Choice c = choose(provider);
        v = construct(c);  // move assignment of a freshly constructed value
        m = Model();
        applyToModel(m, c);
        what = "construct " + std::to_string(c.tag);
        break;
      }
      case 1: {
        const Choice c = choose(provider);
        assign(v, c);
        applyToModel(m, c);
        what = "set " + std::to_string(c.tag);
        break;
      }
      case 2:
        v = CommonValue();
        m = Model();
        what = "default";
        break;
      case 3:
        v.setNull();
        m.tag = 0;
        what = "setNull";
        break;
      case 4: {
        if (textSize(models[source]) * 2 > kMaxText) {
          continue;
        }
        std::vector<CommonValue> elements = {values[source], values[source]};
        v = elements;
        const Model element = liveOnly(models[source]);
        m.tag = 12;
        m.array = {element, element};
        what = "array assignment from " + std::to_string(source);
        break;
      }
      case 5: {
        CommonValue copy(values[source]);
        checkValue(copy, liveOnly(models[source]), "copy constructed");
        v = copy;
        m = liveOnly(models[source]);
        what = "copy construct from " + std::to_string(source);
        break;
      }
      case 6: {
        const Model before = models[source];
        CommonValue moved(std::move(values[source]));
        checkValue(moved, liveOnly(before), "move constructed");
        if (before.tag == 10) {
          models[source].text.clear();
        } else if (before.tag == 12) {
          models[source].array.clear();
        }
        checkValue(values[source], models[source], "moved-from by the move constructor");
        v = moved;
        m = liveOnly(before);
        what = "move construct from " + std::to_string(source);
        break;
      }
      case 7:
        v = values[source];
        m = models[source];
        what = "copy assign from " + std::to_string(source);
        break;
      case 8: {
        if (target == source) {
          continue;
        }
        v = std::move(values[source]);
        m = models[source];
        models[source].text.clear();
        models[source].array.clear();
        what = "move assign from " + std::to_string(source);
        break;
      }
      case 9: {
        CommonValue& self = v;
        v = self;
        what = "self copy assign";
        break;
      }
      default: {
        CommonValue& self = v;
        v = std::move(self);
        what = "self move assign";
        break;
      }
    }
    // Only the two slots a step touches can have changed.
    for (int slot : {target, source}) {
      checkValue(values[slot], models[slot],
                 "after step " + std::to_string(step) + " (" + what + " into slot " +
                     std::to_string(target) + "), slot " + std::to_string(slot));
    }
  }
  return 0;
}

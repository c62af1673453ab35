// The process-wide property table: one ordered map guarded by one mutex, created on first use.
#include "base/process_property.h"

#include <map>
#include <stdexcept>
#include <string>

#include "base/synchronization/auto_lock.h"

namespace base {

namespace {

using velmora::base::AutoLock;
using velmora::base::Mutex;

struct PropertyStore {
  Mutex mutex;
  std::map<std::string, std::string> properties;
};

// The store, created race-free by the first call. When its mutex cannot be initialised the
// exception leaves the first call and the next call tries again.
PropertyStore& store() {
  static PropertyStore instance;
  return instance;
}

// The text of a caller's argument; a null pointer is refused as std::string refuses it.
std::string argumentText(const char* text) {
  if (text == nullptr) {
    throw std::logic_error("basic_string: construction from null is not valid");
  }
  return std::string(text);
}

}  // namespace

std::string set_process_property(const char* name, const char* value) {
  std::string key = argumentText(name);
  std::string newValue = argumentText(value);
  PropertyStore& table = store();
  std::string previous;
  AutoLock<Mutex> lock(table.mutex);
  auto found = table.properties.find(key);
  if (found != table.properties.end()) {
    previous = found->second;
    found->second = std::move(newValue);
  } else {
    table.properties.emplace(std::move(key), std::move(newValue));
  }
  return previous;
}

std::string get_process_property(const char* name) {
  const std::string key = argumentText(name);
  PropertyStore& table = store();
  std::string value;
  AutoLock<Mutex> lock(table.mutex);
  auto found = table.properties.find(key);
  if (found != table.properties.end()) {
    value = found->second;
  }
  return value;
}

}  // namespace base

// The process-property table under allocation failure: a set or get that meets a failed
// allocation throws std::bad_alloc with the table as it was, the first use (which creates the
// table) included, and works when repeated.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "atomic_sweep.h"
#include "base/process_property.h"

namespace {

using velmora::testing::completesOrKeepsState;
using velmora::testing::FaultRun;
using velmora::testing::sweepAllocations;

// Longer than any string kept inside the string object itself, so that copies allocate.
const char kName[] = "a property name long enough to allocate";
const char kValue[] = "a property value long enough to allocate";
const char kOtherValue[] = "another property value long enough to allocate";

// The values of the names the scenarios use, read disarmed.
std::string table() {
  std::string text;
  for (const char* name : {kName, "short", "other property name, long as well"}) {
    text += std::string(name) + "=" + base::get_process_property(name) + ";";
  }
  return text;
}

void nothing() {}

using Preparation = void (*)();
using State = std::string (*)();

// The state a scenario compares: the table once prepare() has used it; nothing before its first
// use, which the operation swept is to make (a set that took effect although it threw then shows
// in the repeat's previous value).
State stateAfter(Preparation prepare) {
  return prepare == nothing ? [] { return std::string(); } : table;
}

// Sweeps set_process_property(kName, value) after prepare() has filled the table, expecting the
// previous value expected_previous.
long sweepSet(Preparation prepare, const char* value, const std::string& expected_previous) {
  return sweepAllocations([&](FaultRun& run) {
    prepare();
    const std::string previous = completesOrKeepsState(
        run, stateAfter(prepare), [&] { return base::set_process_property(kName, value); });
    EXPECT_EQ(expected_previous, previous);
    EXPECT_EQ(value, base::get_process_property(kName));
  });
}

void otherNames() {
  base::set_process_property("short", "1");
  base::set_process_property("other property name, long as well", kValue);
}

void nameAndOtherNames() {
  otherNames();
  base::set_process_property(kName, kValue);
}

TEST(ProcessPropertyFaultSweep, FirstSetCreatesTheTable) {
  EXPECT_GT(sweepSet(nothing, kValue, ""), 0);
}

TEST(ProcessPropertyFaultSweep, SetOfANewName) {
  EXPECT_GT(sweepSet(otherNames, kValue, ""), 0);
}

TEST(ProcessPropertyFaultSweep, SetOfAnExistingName) {
  EXPECT_GT(sweepSet(nameAndOtherNames, kOtherValue, kValue), 0);
}

// Sweeps get_process_property(name) after prepare().
long sweepGet(Preparation prepare, const char* name, const std::string& expected) {
  return sweepAllocations([&](FaultRun& run) {
    prepare();
    EXPECT_EQ(expected, completesOrKeepsState(run, stateAfter(prepare),
                                              [&] { return base::get_process_property(name); }));
  });
}

TEST(ProcessPropertyFaultSweep, FirstGetCreatesTheTable) {
  EXPECT_GT(sweepGet(nothing, kName, ""), 0);
}

TEST(ProcessPropertyFaultSweep, GetOfASetName) {
  EXPECT_GT(sweepGet(nameAndOtherNames, kName, kValue), 0);
}

TEST(ProcessPropertyFaultSweep, GetOfAnAbsentName) {
  EXPECT_GT(sweepGet(otherNames, kName, ""), 0);
}

}  // namespace

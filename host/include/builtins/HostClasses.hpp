#pragma once

// The host's built-in language classes:
//   "datetime"          a point in time with a time zone ("UTC", "local" or none):
//                       static "empty"; construction from epoch ticks
//                       (X, "ConvertFrom", "epochtime", "TicksPerSecond", T,
//                       "TimeZone", Z); "subsasgn" of ".TimeZone"; "posixtime";
//                       "char"; property "TimeZone".
//   "duration"          hours, minutes, seconds: "seconds".
//   "ParallelException" the error class of parallel work (no members).
//   "korvex.mixin.Heterogeneous"  lets arrays of a class hold related kinds.
//   "parallel.internal.future.FutureDisplayer"  "doDisp" prints a table of
//                       a future array.
// Interpreter thread, except where noted.

#include <host/Export.hpp>

namespace hostclasses {

// Registers every class above, once per process. kvm::KVM::create calls it.
// Any thread.
QZHOST_API void registerHostClasses();

} // namespace hostclasses

#pragma once

// Shared by the cluster pool's tests, which run under mpirun: the functions
// every process registers, and short ways to build arrays and read futures.
// Rank 0 runs the tests with an interpreter on its main thread; the other
// ranks serve (see ClusterTestMain.cpp).

#include <mpipool/Cluster.hpp>
#include <mpipool/MpiPool.hpp>

#include <parallel/language/future/FutureBase.hpp>

#include <support/ErrorIds.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace mpipool::testing {

namespace future = parallel::language::future;
using future::FutureState;
using Array = boost::intrusive_ptr<dvArray>;
using testsupport::thrownBy;

// The registered functions (see ClusterTestMain.cpp):
//   "plusOne"      x + 1 (1 without inputs); prints "adding one"
//   "identity"     its inputs as its outputs
//   "callFirst"    calls its first input (a function handle) on the others
//   "fail"         fails as its input says: 1 std::runtime_error, 2 an
//                  envelope with two causes, 3 a host typed error, 4 a non-exception
//   "untilStopped" waits until its task is asked to stop, then gives 1
//   "tally"        counts its calls in the process; gives the count so far
//                  (and with two outputs, the rank); with inputs (client,
//                  task), first creates ranMark(client, task), and fails if
//                  it is there: that task ran before
//   "tallyAndRank" the count so far, without counting, and the rank
//   "exitOnRank"   ends its process at once if it runs on the rank its input
//                  names; else gives the rank it ran on
//   "giveObject"   gives an error object, which cannot be sent
void registerFunctions();

// The cluster of this process (rank 0 while tests run).
Cluster& cluster();
extern Cluster* gCluster;

std::filesystem::path ranMark(double client, double task);
Array scalar(double value);
Array handle(const char* registeredName);
double valueOf(const dvArray* array);

// Waits (generously, so that a fault fails rather than hangs) for the task
// of `f` to reach `state`.
bool reaches(const std::shared_ptr<future::FevalFuture>& f, FutureState state);
// The first output of `f`, once finished.
double outputOf(const std::shared_ptr<future::FevalFuture>& f);
// The message identifier of the error of `f` ("" without one).
std::string errorOf(const std::shared_ptr<future::FevalFuture>& f);

inline constexpr const char* kCancelled = "KORVEX:parallel:future:ExecutionCancelled";

} // namespace mpipool::testing

#pragma once

// The language side of the executors: the classes through which language
// code starts evaluations on the pool set with setLanguagePool. Every
// executor links them (qzexecutor).
//
//   "parallel.internal.queue.FutureCreation"
//       static "buildFutures"(fcn, numOutputs, args...): one evaluation, as a
//       1-by-1 "parallel.FevalFuture" array.
//       static "buildOnAllFutures"(fcn, numOutputs, args...): one evaluation
//       on every worker, as a 1-by-1 "parallel.FevalOnAllFuture" array.
//       The language reaches both through the constructors
//       parallel.FevalFuture(...) and parallel.FevalOnAllFuture(...).
//   "parallel.FevalQueue"
//       constructor without arguments: the queue of the language pool.
//       "submitFutures"(queue, futures): hands futures to the queue; its
//       property "Futures" lists every future handed to it, in order.
//
// The evaluations run on the pool set with setLanguagePool: any executor,
// the local pool or a cluster pool. Interpreter thread, except where noted.

#include <executor/Executor.hpp>

#include <memory>

namespace executor {

// Registers both classes, once per process. Needs the module
// libqzparallellanguagefuture initialised to build futures. Any thread.
void registerLanguageClasses();

// The pool that language code runs evaluations on; null stops evaluations
// ("KORVEX:executor:NoPool"). A std::shared_ptr to any pool converts.
// Any thread.
void setLanguagePool(std::shared_ptr<executor::Executor> pool);
std::shared_ptr<executor::Executor> getLanguagePool();

} // namespace executor

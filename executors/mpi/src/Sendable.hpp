#pragma once

// What the cluster pool can send, checked when work is submitted (it is
// encoded only when it is sent): arrays of the kinds the codec carries, at
// any depth, and function handles whose names are registered.

#include <parallel/language/future/OutputsOrErrorPropertyDvArray.hpp>

#include <matrix/dvArray.hpp>

namespace mpipool {

// Throws KORVEX:mpipool:UnregisteredFunction for a function (`function`, or
// a handle anywhere in the inputs) that is not registered, and
// KORVEX:mpipool:UnsupportedArray for an array of another class. Walks
// nested cells and structs without recursion. Any thread.
void checkSendable(const dvArray* function,
                   const parallel::language::future::DvArrayVector& inputs);

} // namespace mpipool

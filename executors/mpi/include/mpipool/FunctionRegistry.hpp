#pragma once

// The functions that can cross processes: functions travel by name, so every
// process of the cluster registers the same names, the same way, before the
// client opens a pool (and before workers serve). A function handle whose name
// is registered can be sent; the process that receives it runs its own
// registered function of that name.
//
// Threads: any thread; registration usually happens once, at start-up.

#include <matrix/dvArray.hpp>

#include <string>
#include <string_view>

namespace mpipool {

// Registers `body` under `name`. Throws the host error
// "KORVEX:mpipool:DuplicateFunction" when the name is taken.
void registerFunction(std::string name, matrix::FunctionBody body);

// The handle of the function registered as `name`; every call shares one
// function, so handles of one name compare equal. Throws
// "KORVEX:mpipool:UnregisteredFunction" for an unknown name.
boost::intrusive_ptr<dvArray> functionHandle(std::string_view name);

bool isRegistered(std::string_view name);

} // namespace mpipool

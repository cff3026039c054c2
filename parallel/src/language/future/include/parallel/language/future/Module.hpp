#pragma once

// Entry points of the module, called by the host.

#include <parallel/language/future/Export.hpp>

extern "C" {

// Registers the language class "parallel.Future" and its aliases
// "parallel.FevalFuture", "parallel.FevalOnAllFuture",
// "parallel.AfterEachFuture" and "parallel.AfterAllFuture" in the package
// "parallel". Once per process, unless the host keeps class state per user
// session (omGetKcosUsingUSM), when it registers on every call. Errors of the
// registration propagate, and a later call tries again. Any thread.
QZ_FUTURE_API void KVInitialize_libqzparallellanguagefuture();

// Does nothing: the class stays registered for the life of the process.
QZ_FUTURE_API void KVTerminate_libqzparallellanguagefuture();
}

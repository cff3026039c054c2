#pragma once

// The registry's own handles, for the pool's hot paths: a lookup that hands
// out no shared copy. Registrations are never undone, so a handle found here
// lives until the process ends.

#include <matrix/dvArray.hpp>

#include <string_view>

namespace mpipool {

// The registered handle of `name`, or null. Remembers the last name found on
// the calling thread, which then needs no lock. Any thread.
const dvArray* findRegistered(std::string_view name);

} // namespace mpipool

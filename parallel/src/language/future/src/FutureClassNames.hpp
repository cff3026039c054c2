#pragma once

// Interned names of the language classes and members the library uses.
// Each is interned once, on first use. Any thread.

#include <kcos/Interned.hpp>

#include <string_view>

namespace parallel::language::future::names {

// The interned form of `name`; the empty name is the null name, without a
// call into the class-object system.
kcos::InternedName intern(std::string_view name);

// "parallel.Future": the class of every future object, and the key of its
// instance data.
kcos::InternedName futureClass();

} // namespace parallel::language::future::names

#pragma once

// Private to the class-object system: the process-wide registry of packages,
// class infos, built classes and aliases, and object creation.

#include <kcos/COSClass.hpp>

#include <memory>
#include <string>

namespace kcos::detail {

// A new object of `cls` with its instance data (createInstanceData when the
// class carries native instance data). Interpreter thread.
std::shared_ptr<COSInterface> createObject(COSClass& cls);

// The class name of `cls` split into package and short name.
std::pair<std::string, std::string> splitClassName(std::string_view fullName);

} // namespace kcos::detail

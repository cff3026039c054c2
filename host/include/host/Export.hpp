#pragma once

// Symbols of the host stand-in (libqzhost) are always public: the library and
// every program share one copy of the host's process-wide state.
#define QZHOST_API __attribute__((visibility("default")))

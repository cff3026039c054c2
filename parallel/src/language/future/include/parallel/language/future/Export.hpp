#pragma once

// The library is built with hidden visibility; only the native interface is
// exported.
#define QZ_FUTURE_API __attribute__((visibility("default")))

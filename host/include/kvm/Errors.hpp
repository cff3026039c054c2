#pragma once

// Tag of the interpreter's interrupt error, thrown as
// foundation::core::except::Exception<KORVEX::interrupted> when the user
// stops a running operation (Ctrl-C). Its text is the host catalogue's entry
// "KORVEX:interrupted"; it takes no arguments.

namespace KORVEX {

struct interrupted {
    static constexpr const char* component = "KORVEX";
    static constexpr const char* key = "interrupted";
};

} // namespace KORVEX

#pragma once

// Tags of the array library's typed exceptions, thrown as
// foundation::core::except::Exception<KORVEX::badsubscript> and so on. Their
// texts are the host catalogue's entries "KORVEX:badsubscript",
// "KORVEX:maxlhs", "KORVEX:maxrhs" and "KORVEX:minrhs"; none takes arguments.

namespace KORVEX {

struct badsubscript {
    static constexpr const char* component = "KORVEX";
    static constexpr const char* key = "badsubscript";
};

// Too many outputs requested.
struct maxlhs {
    static constexpr const char* component = "KORVEX";
    static constexpr const char* key = "maxlhs";
};

// Too many inputs.
struct maxrhs {
    static constexpr const char* component = "KORVEX";
    static constexpr const char* key = "maxrhs";
};

// Not enough inputs.
struct minrhs {
    static constexpr const char* component = "KORVEX";
    static constexpr const char* key = "minrhs";
};

} // namespace KORVEX

#pragma once

// Silences one warning of GCC's optimiser around the code where it arises,
// for false positives that GCC reports inside libstdc++'s own inline code
// (the library's headers, not ours, are what the warning points at). Each use
// names the GCC bug it works around, so it can go when the compiler is fixed.
// Other compilers see nothing.
//
// Threading: none (macros).
//
//   // GCC bug 105329: bogus -Wrestrict in "literal" + std::string.
//   QEL_GCC_IGNORE_BEGIN("-Wrestrict")
//   std::string quoted(std::string_view s) { return "\"" + std::string(s) + "\""; }
//   QEL_GCC_IGNORE_END
#if defined(__GNUC__) && !defined(__clang__)
#define QEL_GCC_PRAGMA(text) _Pragma(#text)
#define QEL_GCC_IGNORE_BEGIN(warning) _Pragma("GCC diagnostic push") QEL_GCC_PRAGMA(GCC diagnostic ignored warning)
#define QEL_GCC_IGNORE_END _Pragma("GCC diagnostic pop")
#else
#define QEL_GCC_IGNORE_BEGIN(warning)
#define QEL_GCC_IGNORE_END
#endif

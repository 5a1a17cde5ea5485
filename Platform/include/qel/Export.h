#pragma once

// QEL_EXPORT marks the API an application may call. The library is built
// with every symbol hidden by default, so what carries this mark is the whole
// of its binary interface: anything else can change without breaking an
// application linked against libqelmaps.so.1.
//
// Put it on a class (its members, vtable and type information follow) or on
// the declaration of a free function or variable; the static build carries
// the same marks, where they change nothing.
//
//   class QEL_EXPORT Thing : public qel::Object { ... };
//   QEL_EXPORT extern const char* const ThingDidChangeNotification;
#if defined(__GNUC__)
#define QEL_EXPORT __attribute__((visibility("default")))
#else
#define QEL_EXPORT
#endif

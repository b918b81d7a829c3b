// Qt 5.15's JSON parser loses a list or an object that a later member of the same name replaces, as
// in {"a":[1],"a":2}: 80 bytes each time, of which a leak check would tell for every such input.
// Include in targets that read JSON.
#ifndef FUZZ_SUPPORT_QT_JSON_LEAKS_H
#define FUZZ_SUPPORT_QT_JSON_LEAKS_H

// The leak checker asks for this name. NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" __attribute__((visibility("default"))) const char* __lsan_default_suppressions();
// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" const char* __lsan_default_suppressions() { return "leak:libQt5Core.so"; }

#endif  // FUZZ_SUPPORT_QT_JSON_LEAKS_H

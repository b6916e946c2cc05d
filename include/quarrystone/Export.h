#pragma once

// Marks the symbols that the shared library exports. Everything else in the
// shared library is hidden; the static library exports everything.
#if defined(QS_SHARED_BUILD)
#define QS_EXPORT __attribute__((visibility("default")))
#else
#define QS_EXPORT
#endif

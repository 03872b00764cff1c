#pragma once

// The shared object exports only what carries TARN_API; everything else is
// built with hidden visibility so that internals (node identifiers, the
// module-private senders, codec helpers) stay out of the dynamic symbol table.
#if defined(TARN_BUILDING_LIBRARY)
#define TARN_API __attribute__((visibility("default")))
#else
#define TARN_API
#endif

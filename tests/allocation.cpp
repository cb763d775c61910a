// Lets the fault plan fail the product's allocations. Linked into test programs with --wrap, so
// that only what they contain is affected; a sanitizer's allocator stays in its place.
#include "simhost/simhost.h"

#include <cstdlib>

using namespace simhost;

#define WRAP(type, name, parameters, ...)                                                          \
    type __real_##name parameters;                                                                 \
    type __wrap_##name parameters                                                                  \
    {                                                                                              \
        return plan("malloc") == outcome::failed ? nullptr : __real_##name(__VA_ARGS__);           \
    }

extern "C" {

WRAP(void *, malloc, (size_t size), size)
WRAP(void *, calloc, (size_t count, size_t size), count, size)
WRAP(void *, realloc, (void *block, size_t size), block, size)
WRAP(char *, strdup, (const char *text), text)
WRAP(char *, strndup, (const char *text, size_t size), text, size)

} // extern "C"

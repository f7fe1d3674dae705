// The mathematical functions that Lua and the C++ library call, taken from the C library at the first call. A program
// that names them itself has libm loaded at every start, which costs a run without Lua a tenth of its memory.
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>

namespace
{

template <typename function_type> function_type *in_libm(const char *name)
{
    static void *const library = dlopen("libm.so.6", RTLD_NOW | RTLD_LOCAL);
    void *const function = library != nullptr ? dlsym(library, name) : nullptr;
    if (function == nullptr) {
        fprintf(stderr, "%s\n", dlerror());
        abort();
    }
    return reinterpret_cast<function_type *>(function);
}

} // namespace

#define FROM_LIBM(result, name, parameters, arguments)                                                                 \
    extern "C" result name parameters                                                                                  \
    {                                                                                                                  \
        static auto *const function = in_libm<result parameters>(#name);                                               \
        return function arguments;                                                                                     \
    }

FROM_LIBM(double, acos, (double x), (x))
FROM_LIBM(double, asin, (double x), (x))
FROM_LIBM(double, atan2, (double y, double x), (y, x))
FROM_LIBM(double, cos, (double x), (x))
FROM_LIBM(double, cosh, (double x), (x))
FROM_LIBM(double, exp, (double x), (x))
FROM_LIBM(double, fmod, (double x, double y), (x, y))
FROM_LIBM(double, frexp, (double x, int *exponent), (x, exponent))
FROM_LIBM(double, ldexp, (double x, int exponent), (x, exponent))
FROM_LIBM(double, log, (double x), (x))
FROM_LIBM(double, log10, (double x), (x))
FROM_LIBM(double, log2, (double x), (x))
FROM_LIBM(double, pow, (double x, double y), (x, y))
FROM_LIBM(double, sin, (double x), (x))
FROM_LIBM(double, sinh, (double x), (x))
FROM_LIBM(double, sqrt, (double x), (x))
FROM_LIBM(double, tan, (double x), (x))
FROM_LIBM(double, tanh, (double x), (x))

// The C++ library reads numbers under a rounding of its own.
FROM_LIBM(int, fegetround, (), ())
FROM_LIBM(int, fesetround, (int mode), (mode))

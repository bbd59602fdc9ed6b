// The exported functions, of a runtime or a driver: each packs its arguments and hands them on.
#include <type_traits>

#include "model.h"
#include "util/def.h"

namespace {

template <typename T>
constexpr std::size_t SizeOf() {
    if constexpr (std::is_integral_v<T>) return sizeof(T);
    return 0;
}

template <typename T>
Argument Pack(T value) {
    using Kind = Argument::Kind;
    if constexpr (std::is_pointer_v<T>) {
        using Target = std::remove_pointer_t<T>;
        constexpr Kind kKind = std::is_void_v<Target> ? Kind::Opaque
                               : std::is_same_v<Target, SQLCHAR> || std::is_same_v<Target, SQLWCHAR>
                                   ? Kind::Text
                                   : Kind::Pointer;
        return {reinterpret_cast<long long>(value), kKind, SizeOf<Target>()};
    } else {
        return {static_cast<long long>(value), Kind::Number, 0};
    }
}

template <typename... T>
SQLRETURN Enter(const char* name, const char* path, T... values) {
    const Argument arguments[] = {Pack(values)...};
    return Answer(path, {name, arguments}, [&](void* function) {
        if constexpr (kIsDriver)
            return reinterpret_cast<SQLRETURN (*)(T...)>(function)(values...);
        else
            return reinterpret_cast<SQLRETURN (*)(const char*, T...)>(function)(path, values...);
    });
}

}  // namespace

#define ODBC_UNPACK(...) __VA_ARGS__
#ifdef VORDA_DRIVER
#define ODBC_CALL(name, parameters, arguments)                            \
    extern "C" VORDA_EXPORT SQLRETURN SQL##name(ODBC_UNPACK parameters) { \
        return Enter("SQL" #name, nullptr, ODBC_UNPACK arguments);        \
    }
#else
#define ODBC_CALL(name, parameters, arguments)                               \
    extern "C" VORDA_EXPORT SQLRETURN RT_SQL##name(const char* modulePath,   \
                                                   ODBC_UNPACK parameters) { \
        return Enter("SQL" #name, modulePath, ODBC_UNPACK arguments);        \
    }
#endif
#include "mono/odbc_functions.def"

extern "C" VORDA_EXPORT int RT_Version() {
    return 6;
}

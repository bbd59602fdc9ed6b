#pragma once

#include <new>
#include <type_traits>

#include "core/error.h"
#include "core/handle.h"
#include "core/lock.h"

namespace embedded {

/// Whether an entry point works on a handle of a connection that was opened before this process was
/// forked: only those that let go of it do.
enum class Inherited { Refused, Allowed };

/// Runs the body of an entry point on the object behind `id`: finds it, locks it, clears its
/// diagnostics, and turns what the body throws into a diagnostic and SQL_ERROR. SQL_SUCCESS with a
/// warning recorded becomes SQL_SUCCESS_WITH_INFO, and a body that answers nothing has succeeded.
/// No exception passes an entry point.
template <class T, Inherited inherited = Inherited::Refused, class Body>
SQLRETURN withHandle(SQLHANDLE id, Body&& body) noexcept {
    const std::shared_ptr<T> object = HandleRegistry::instance().find<T>(id);
    if (!object) return SQL_INVALID_HANDLE;
    const Lock lock(object->mutex());
    if (object->dropped) return SQL_INVALID_HANDLE;
    object->diagnostics.clear();
    try {
        if (inherited == Inherited::Refused && object->inherited()) throw inheritedError();
        SQLRETURN result = SQL_SUCCESS;
        if constexpr (std::is_void_v<std::invoke_result_t<Body, T&>>) {
            body(*object);
        } else {
            result = static_cast<SQLRETURN>(body(*object));
        }
        return result == SQL_SUCCESS && object->diagnostics.count()
                   ? SQLRETURN{SQL_SUCCESS_WITH_INFO}
                   : result;
    } catch (const Error& error) {
        object->diagnostics.error(error);
    } catch (const std::bad_alloc&) {
        object->diagnostics.outOfMemory();
    } catch (...) {
        // A size that the standard library refuses before it asks for the memory.
        object->diagnostics.outOfMemory();
    }
    return SQL_ERROR;
}

}  // namespace embedded

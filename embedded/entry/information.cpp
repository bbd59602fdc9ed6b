// Entry point: what an application can find out about this runtime and the database behind it.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <string>

#include "core/callertext.h"
#include "core/connection.h"
#include "core/information.h"
#include "entry/entry.h"
#include "entry/runtime.h"

namespace embedded {
namespace {

struct OwnInfo {
    SQLUSMALLINT type;
    const char* text;  ///< null: a number
    SQLUINTEGER number = 0;
};

/// Facts about this runtime, whichever engine runs, and before one does.
constexpr OwnInfo kOwn[] = {
    {SQL_DRIVER_NAME, "libvordart.x64.so.6"},
    {SQL_DRIVER_ODBC_VER, "03.00"},
    {SQL_DRIVER_VER, "06.00.0000"},
    {SQL_GETDATA_EXTENSIONS, nullptr,
     SQL_GD_ANY_COLUMN | SQL_GD_ANY_ORDER | SQL_GD_BLOCK | SQL_GD_BOUND},
};

template <class T>
void outputNumber(T answer, SQLPOINTER value, SQLSMALLINT* length) noexcept {
    if (value) std::memcpy(value, &answer, sizeof answer);
    if (length) *length = static_cast<SQLSMALLINT>(sizeof answer);
}

Information informationOf(Connection& connection, SQLUSMALLINT type) {
    const auto own = std::find_if(std::begin(kOwn), std::end(kOwn),
                                  [type](const OwnInfo& entry) { return entry.type == type; });
    if (own != std::end(kOwn)) return own->text ? Information(own->text) : Information(own->number);
    if (auto answer = connection.database().information(type)) return std::move(*answer);
    throw Error("HY096", "Unknown information type " + std::to_string(type) + ".");
}

}  // namespace
}  // namespace embedded

using namespace embedded;

SQLRETURN RT_SQLGetInfo(const char*, SQLHDBC handle, SQLUSMALLINT type, SQLPOINTER value,
                        SQLSMALLINT capacity, SQLSMALLINT* length) {
    return withHandle<Connection>(handle, [&](Connection& connection) {
        const Information answer = informationOf(connection, type);
        if (const auto* text = std::get_if<std::string>(&answer)) {
            answerText(connection.diagnostics, *text, value, capacity, length);
        } else if (infoKind(type) == InfoKind::Short) {
            outputNumber(static_cast<SQLUSMALLINT>(std::get<SQLUINTEGER>(answer)), value, length);
        } else {
            outputNumber(std::get<SQLUINTEGER>(answer), value, length);
        }
    });
}

RT_WIDE_IS_NARROW(SQLGetInfo);

#include "util/dynstr.h"

#include <charconv>

int FormatInt64(char* buf, int buflen, long long num) {
    if (buflen < 1) return 0;
    const auto result = std::to_chars(buf, buf + buflen - 1, num);
    char* const end = result.ec == std::errc{} ? result.ptr : buf;
    *end = '\0';
    return static_cast<int>(end - buf);
}

template class DynStrTemplate<99>;

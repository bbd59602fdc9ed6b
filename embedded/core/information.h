#pragma once

#include <sql.h>

namespace embedded {

/// In what form SQLGetInfo answers.
enum class InfoKind { Text, Short, Long };

/// The form of the information type `type`, as the standard has it; Long for an unknown one.
InfoKind infoKind(SQLUSMALLINT type) noexcept;

}  // namespace embedded
